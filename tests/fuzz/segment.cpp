// The bytes and the length of a segment file under every reading and writing operation.
#include "fuzz/fuzz.h"

#include "kp.h"
#include "value/consistent.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

using namespace kpfuzz;

namespace {

constexpr const char *kTopic = "a";
constexpr const char *kPath = "/dev/shm/zu-kp/a";

void put_file(const std::vector<uint8_t> &bytes)
{
    std::ofstream file(kPath, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// The operations by name, none of which needs a handle.
void use_by_name(FuzzedDataProvider &input)
{
    void *value = nullptr;
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t extra = 0;
    uint64_t timestamp = 0;
    uint64_t source_ts = 0;
    uint8_t quality = 0;
    if (kp_shm_instant_read(kTopic, &value, &type, &size, &timestamp, &quality, &source_ts,
                            &extra) == 0)
        check(size <= kp::kValueAreaSize, "an instant read gives no more than the value area");
    std::free(value);
    (void)kp_shm_instant_get_value_info(kTopic, &type, &size, &extra);
    (void)kp_shm_instant_get_max_value_size(kTopic, &size);
    uint32_t providers = 0;
    uint32_t consumers = 0;
    if (kp_shm_get_reference_count(kTopic, &providers, &consumers) == 0)
        check(providers <= 255 && consumers <= 255, "counts have 8 bits");
    const std::string written = input.ConsumeRandomLengthString(KP_MAX_VALUE_SIZE);
    if (input.ConsumeBool())
        (void)kp_shm_instant_write(kTopic, input.ConsumeBool() ? written.data() : nullptr,
                                   input.ConsumeIntegral<uint32_t>(),
                                   static_cast<uint32_t>(written.size()), 1, quality, 2, 3);
}

// Both reads, into a buffer of an arbitrary size whose end the sanitizer watches.
void read(kp_shm_t *shm, uint32_t room)
{
    std::vector<uint8_t> buffer(room);
    uint64_t timestamp = 0;
    uint64_t source_ts = 0;
    uint8_t quality = 0;
    const int32_t plain = kp_shm_read(shm, buffer.data(), room, &timestamp, &quality, &source_ts);
    check(plain >= -1 && plain <= static_cast<int32_t>(room), "a read keeps to its buffer");
    const int32_t consistent =
        kp::read_consistent(shm, buffer.data(), room, &timestamp, &quality, &source_ts);
    check(consistent >= -1 && consistent <= static_cast<int32_t>(room),
          "a consistent read keeps to its buffer");
    if (consistent >= 0)
        check(consistent == plain, "both reads of a topic at rest give the same size");
}

void use_handle(kp_shm_t *shm, FuzzedDataProvider &input)
{
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t extra = 0;
    read(shm, input.ConsumeIntegralInRange<uint32_t>(0, 5000));
    (void)kp_shm_get_read_info(shm, &type, &size, &extra);
    (void)kp_shm_get_max_value_size(shm, &size);
    (void)kp_shm_has_value(shm);
    (void)kp_shm_has_read(shm);
    check(kp_shm_get_quality(shm) >= 0 && kp_shm_get_quality(shm) <= 255, "quality has 8 bits");
    const std::string value = input.ConsumeRandomLengthString(5000);
    const auto value_size = static_cast<uint32_t>(value.size());
    const int32_t written = kp_shm_write(shm, value.data(), value_size, 5, 6, 7);
    check(written == -1 || written == static_cast<int32_t>(value_size), "a write is whole");
    if (written > 0) {
        std::string back(value_size, '\0');
        check(kp_shm_read(shm, back.data(), value_size, nullptr, nullptr, nullptr) == written &&
                  back == value,
              "what was written is read");
    }
    if (input.ConsumeBool())
        (void)kp_shm_set_provider_info(shm, input.ConsumeIntegral<uint32_t>(),
                                       input.ConsumeIntegral<uint32_t>(), 1);
    (void)kp_shm_init_source_params(shm);
    read(shm, KP_MAX_VALUE_SIZE);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare();
    std::ofstream("/dev/null");
    (void)kp_mkdir(kPath);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    // The file comes first and as it is, so that the fuzzer can find its fields.
    const std::size_t file_size = std::min<std::size_t>(size, 8192);
    put_file({data, data + file_size});
    FuzzedDataProvider input(data, size);

    use_by_name(input);
    const uint32_t role = input.ConsumeIntegralInRange<uint32_t>(0, 3);
    if (kp_shm_t *shm = kp_shm_new(kTopic, role)) {
        use_handle(shm, input);
        (void)kp_shm_destroy(shm, kTopic, role);
    }
    (void)std::remove(kPath);
    return 0;
}
