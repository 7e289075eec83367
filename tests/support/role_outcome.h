// What must not hang the test itself is played in a process of its own, which is killed when it does.
#ifndef MIVO_TESTS_SUPPORT_ROLE_OUTCOME_H_
#define MIVO_TESTS_SUPPORT_ROLE_OUTCOME_H_

#include "support/child_program.h"
#include "support/sanitizers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

namespace mivo_test {

constexpr std::chrono::seconds kRolePatience{15 * kSlowdown};

// The role ends by itself, and with status 0.
inline void ExpectRoleSucceeds(const std::string& role, const std::string& argument = "",
                               std::chrono::milliseconds patience = kRolePatience) {
  ChildProgram child = StartRole(role, argument);
  const std::optional<int> status = child.Wait(patience);
  if (!status) {
    ADD_FAILURE() << role << " (" << argument << ") has not ended";
  } else {
    EXPECT_EQ(*status, 0) << role << " (" << argument << "): " << child.ReadOutput();
  }
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_ROLE_OUTCOME_H_
