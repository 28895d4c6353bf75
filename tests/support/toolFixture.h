// diskcachectl run as a process, against directories of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/tempDir.h"

namespace ObjectStore {

struct ToolTest : ::testing::Test {
  std::string on(const std::string& volume) const { return "--volume " + (dir / volume) + ' '; }
  // Runs "diskcachectl ARGUMENTS", which a shell reads; returns the exit status.
  int run(const std::string& arguments) {
    const std::string command = DISKCACHECTL_PATH " " + arguments;
    const int status =
        std::system(("{ " + command + "; } >" + (dir / "out") + " 2>" + (dir / "err")).c_str());
    out = readFile(dir / "out");
    err = readFile(dir / "err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // What it prints with --json.
  nlohmann::json parsed(const std::string& arguments, int status = 0) {
    EXPECT_EQ(run(arguments + " --json"), status) << arguments << '\n' << err;
    return nlohmann::json::parse(out, nullptr, false);
  }
  // Each field of `part` with its value.
  static void expectFields(nlohmann::json whole, const nlohmann::json& part) {
    for (const auto& [name, value] : part.items()) EXPECT_EQ(whole[name], value) << name << " of " << whole;
  }
  void expectSaid(const std::string& text) const {
    EXPECT_NE((out + err).find(text), std::string::npos) << text << " is not in " << out << err;
  }
  // Fails with this status and says so on one line.
  void expectFailure(const std::string& arguments, int status, const std::string& message) {
    EXPECT_EQ(run(arguments), status) << arguments;
    expectSaid(message);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }

  const TempDir dir;
  const std::string root = "--root " + (dir / "root ");
  std::string out, err;
};

}  // namespace ObjectStore
