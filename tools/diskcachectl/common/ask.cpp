#include "common/ask.h"

#include <fmt/core.h>

#include <cstdio>
#include <iostream>

#include "common/failure.h"
#include "common/output.h"

namespace diskcachectl {

void confirm(const std::string& question) {
  fmt::print(stderr, "{} [y/N] ", printable(question));
  std::fflush(stderr);
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") throw Failure(ExitStatus::BadInput, "not confirmed; nothing is done");
}

}  // namespace diskcachectl
