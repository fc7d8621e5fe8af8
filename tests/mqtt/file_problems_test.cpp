#include "config/file_problems.h"

#include "certificates.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kp::mqtt;
using kptest::make_certificates;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

std::string file_with(const std::string &name, const std::string &text)
{
    std::filesystem::create_directories("/run/problems/folder");
    const std::string path = "/run/problems/" + name;
    std::ofstream(path) << text;
    (void)chmod(path.c_str(), 0600);
    return path;
}

BrokerSettings with_tls(const std::string &ca_file, const std::string &cert_file,
                        const std::string &key_file)
{
    BrokerSettings broker;
    broker.tls = TlsSettings{ca_file, "", cert_file, key_file};
    return broker;
}

} // namespace

TEST(FileProblems, AreNoneWhereEveryFileIsWhatItShouldBe)
{
    make_certificates();
    (void)file_with("any", "");

    const BrokerSettings broker =
        with_tls("/run/tls/ca.pem", "/run/tls/device.pem", "/run/tls/device.key");

    EXPECT_THAT(file_problems(broker), IsEmpty());
    EXPECT_THAT(date_problems(broker), IsEmpty());
    EXPECT_EQ(state_file_problem("/run/problems/state"), "");
    EXPECT_EQ(state_file_problem(""), "");
    EXPECT_EQ(state_file_problem("/var/lib/kp-mqtt/state"), "");
}

TEST(FileProblems, NameFilesThatHoldNothingOfTheRightKind)
{
    make_certificates();
    const std::string text = file_with("text", "hello\n");
    const std::string broken =
        file_with("broken", "-----BEGIN CERTIFICATE-----\nx\n-----END CERTIFICATE-----\n");

    EXPECT_THAT(file_problems(with_tls(broken, text, text)),
                ElementsAre(StartsWith("/run/problems/broken: holds no certificate in PEM form"),
                            StartsWith("/run/problems/text: holds no certificate in PEM form"),
                            StartsWith("/run/problems/text: holds no private key in PEM form")));
    EXPECT_THAT(
        file_problems(with_tls("/run/tls/ca.pem", "/run/tls/device.pem", "/run/tls/ca.key")),
        ElementsAre("/run/tls/ca.key: is not the key of the certificate in /run/tls/device.pem"));
}

TEST(FileProblems, NameDirectoriesAndFilesThatAreMissing)
{
    (void)file_with("any", "");

    EXPECT_THAT(file_problems(
                    with_tls("/run/problems/folder", "/run/problems/none", "/run/problems/folder")),
                ElementsAre("/run/problems/folder: is no file",
                            "/run/problems/none: No such file or directory",
                            "/run/problems/folder: is no file"));
}

TEST(FileProblems, NameAKeyThatNeedsAPassword)
{
    make_certificates();
    const std::string key = file_with("secret.key", "");
    ASSERT_EQ(std::system("openssl pkcs8 -topk8 -passout pass:word -in /run/tls/ca.key "
                          "-out /run/problems/secret.key"),
              0);

    EXPECT_THAT(
        file_problems(with_tls("", "", key)),
        ElementsAre("/run/problems/secret.key: is encrypted, and nobody could be asked for its "
                    "password"));
}

TEST(FileProblems, NameAStateFileThatCannotBeWritten)
{
    (void)file_with("plain", "");

    EXPECT_EQ(state_file_problem("/run/problems/none/state"),
              "state-file: /run/problems/none: No such file or directory");
    EXPECT_EQ(state_file_problem("/run/problems/plain/state"),
              "state-file: /run/problems/plain: is no directory");
    EXPECT_EQ(state_file_problem("/run/problems/folder"),
              "state-file: /run/problems/folder: is no file");
}
