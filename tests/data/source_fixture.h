// Sources without the settings of the machine that runs the tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "qvx/data/source.h"
#include "qvx/data/source_list.h"
#include "qvx/support/text.h"
#include "tests/support/env_guard.h"
#include "tests/support/fake_host_name.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

// No setting of the machine that runs the tests reaches them.
class Sources : public testing::Test {
 protected:
  static std::string resolved(const char* given) {
    std::array<char, kSourceIdSize> id;
    id.fill('?');
    EXPECT_TRUE(source_id_resolve(id, given));
    EXPECT_EQ(id.back(), '\0');
    return std::string(field_text(id));
  }

  // The list of a format, or nothing with exactly the message of an invalid one.
  static std::optional<SourceList> from_format(const std::string& text) {
    const LogCapture log(QVX_LOG_ERROR);
    std::optional<SourceList> list = source_list_from_format(text.c_str());
    if (!list) {
      EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "[source] Invalid source format: " + text}}));
    } else {
      EXPECT_TRUE(log.messages().empty());
    }
    return list;
  }

 private:
  EnvGuard source_id_{"QVX_SOURCE_ID", nullptr};
  EnvGuard alias_{"SOURCE_ID", nullptr};
  EnvGuard host_name_{"QVX_HOST_NAME", nullptr};
  FakeHostName system_{"sampler.example"};
};

}  // namespace qvx::test
