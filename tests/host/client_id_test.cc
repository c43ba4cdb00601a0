#include "qvx/host/client_id.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qvx/support/log.h"
#include "tests/support/env_guard.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_host_name.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::FailingAllocations;
using test::FakeHostName;

const std::string kHundredCharacters(100, 'n');

TEST(HostName, EnvironmentNameKeepsItsDots) {
  const EnvGuard set("QVX_HOST_NAME", "node7.rack.example");
  const ClientIdPtr id(qvx_client_id_create());
  ASSERT_NE(id, nullptr);
  EXPECT_STREQ(id->host_name.data(), "node7.rack.example");
  EXPECT_EQ(id->port, 0);
}

TEST(HostName, UnprefixedVariableIsNotRead) {
  const EnvGuard unset("QVX_HOST_NAME", nullptr);
  const EnvGuard alias("HOST_NAME", "alias");
  const FakeHostName system("system");
  char name[64];
  EXPECT_STREQ(qvx_host_name(name, sizeof name), "system");
}

TEST(HostName, SystemNameEndsBeforeItsFirstDot) {
  const EnvGuard unset("QVX_HOST_NAME", nullptr);
  const FakeHostName system("node7.rack.example");
  const ClientIdPtr id(qvx_client_id_create());
  ASSERT_NE(id, nullptr);
  const std::array<char, 64> expected{'n', 'o', 'd', 'e', '7'};
  EXPECT_EQ(id->host_name, expected) << "the bytes behind the name are zero";
}

TEST(HostName, LongEnvironmentNameKeepsItsFirst63Characters) {
  const EnvGuard set("QVX_HOST_NAME", kHundredCharacters.c_str());
  const ClientIdPtr id(qvx_client_id_create());
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(std::strlen(id->host_name.data()), 63u);
  EXPECT_EQ(std::string(id->host_name.data()), kHundredCharacters.substr(0, 63));
}

TEST(HostName, EmptyEnvironmentNameIsTakenAsItIs) {
  const EnvGuard set("QVX_HOST_NAME", "");
  char name[64] = "old";
  EXPECT_STREQ(qvx_host_name(name, sizeof name), "");
}

TEST(HostName, SystemNameThatDoesNotFitIsNone) {
  const EnvGuard unset("QVX_HOST_NAME", nullptr);
  const FakeHostName system("abcdefgh");
  char name[9];
  EXPECT_EQ(qvx_host_name(name, sizeof name), nullptr);
  char longer[10];
  EXPECT_STREQ(qvx_host_name(longer, sizeof longer), "abcdefgh");
}

TEST(HostName, NoBufferGivesNone) {
  char name[1] = {'x'};
  EXPECT_EQ(qvx_host_name(name, 0), nullptr);
  EXPECT_EQ(name[0], 'x');
  EXPECT_EQ(qvx_host_name(nullptr, 64), nullptr);
}

TEST(ClientId, IsNoneWithoutAHostName) {
  const EnvGuard unset("QVX_HOST_NAME", nullptr);
  const FakeHostName broken(EFAULT);
  EXPECT_EQ(qvx_client_id_create(), nullptr);
}

TEST(ClientId, IsNoneWhenMemoryIsShort) {
  const FailingAllocations none(0);
  EXPECT_EQ(qvx_client_id_create(), nullptr);
}

TEST(ClientId, LayoutDumpListsBothFields) {
  testing::internal::CaptureStdout();
  qvx_client_id_print_layout();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Client identifier qvx_client_id_t\n"
            "\n"
            "Field                 Offset    Size\n"
            " host_name                  0         64\n"
            " port                       64        2\n");
}

TEST(ClientId, LayoutDumpIsMissingWhenMemoryIsShort) {
  testing::internal::CaptureStdout();
  const std::uint32_t level = qvx_logger_set_level(0);
  {
    const FailingAllocations none(0);
    qvx_client_id_print_layout();
  }
  qvx_logger_set_level(level);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace qvx
