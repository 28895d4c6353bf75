// What the admin socket says.
#pragma once

#include <string>
#include <string_view>

#include "life/startState.h"
#include "serve/service.h"

namespace diskcached {

struct Page {
  unsigned status = 200;
  std::string type = "text/plain";
  std::string body{};
};

Page adminPage(Service& service, StartState& start, std::string_view method, std::string_view target);

}  // namespace diskcached
