// LMDB on tmpfs: one key for each topic, written without synchronising the file, since nothing
// there survives a restart.
#include "values/limit.h"

#include <array>
#include <cstring>
#include <lmdb.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>

namespace bench {

namespace {

constexpr const char *kFolder = "/dev/shm/bench-lmdb";

void check(int result)
{
    require(result == 0, mdb_strerror(result));
}

class LmdbKeys {
  public:
    LmdbKeys(Side side, uint32_t size) : size_(size)
    {
        (void)mkdir(kFolder, 0777);
        check(mdb_env_create(&env_));
        check(mdb_env_set_mapsize(env_, 16U << 20));
        check(mdb_env_open(env_, kFolder, MDB_NOSYNC | MDB_WRITEMAP | MDB_NOMEMINIT, 0666));
        MDB_txn *txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, side == Side::sender ? 0 : MDB_RDONLY, &txn));
        check(mdb_dbi_open(txn, nullptr, 0, &database_));
        check(mdb_txn_commit(txn));
        for (unsigned topic = 0; topic < kTopics; ++topic)
            keys_[topic] = "bench/value/" + std::to_string(topic);
        if (side == Side::receiver) { // a reader keeps its transaction and renews it
            check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_));
            mdb_txn_reset(reader_);
        }
    }
    LmdbKeys(const LmdbKeys &) = delete;
    LmdbKeys &operator=(const LmdbKeys &) = delete;
    ~LmdbKeys()
    {
        if (reader_)
            mdb_txn_abort(reader_);
        mdb_env_close(env_);
    }
    void write(unsigned topic, const std::byte *value)
    {
        timeval now{};
        (void)gettimeofday(&now, nullptr);
        MDB_txn *txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, 0, &txn));
        MDB_val key{keys_[topic].size(), keys_[topic].data()};
        MDB_val data{sizeof now + size_, nullptr};
        check(mdb_put(txn, database_, &key, &data, MDB_RESERVE));
        std::memcpy(data.mv_data, &now, sizeof now);
        std::memcpy(static_cast<std::byte *>(data.mv_data) + sizeof now, value, size_);
        check(mdb_txn_commit(txn));
    }
    void read(unsigned topic, std::byte *buffer)
    {
        check(mdb_txn_renew(reader_));
        MDB_val key{keys_[topic].size(), keys_[topic].data()};
        MDB_val data{};
        check(mdb_get(reader_, database_, &key, &data));
        std::memcpy(&seen_, data.mv_data, sizeof seen_);
        std::memcpy(buffer, static_cast<std::byte *>(data.mv_data) + sizeof seen_,
                    data.mv_size - sizeof seen_);
        mdb_txn_reset(reader_);
    }

  private:
    uint32_t size_;
    timeval seen_{};
    MDB_env *env_ = nullptr;
    MDB_dbi database_ = 0;
    MDB_txn *reader_ = nullptr;
    std::array<std::string, kTopics> keys_;
};

} // namespace

std::vector<ValueContestant> value_contestants()
{
    return {{"LMDB", store_of<LmdbKeys>(), mapped_limit()}};
}

} // namespace bench
