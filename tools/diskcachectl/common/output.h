// What a subcommand says: its result on standard output, what is in its way on standard error.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace diskcachectl {

enum class Colour { Red, Green, Yellow, Bold };

// The text in a colour when standard output is a terminal and NO_COLOR is not set, otherwise as it is.
std::string painted(Colour colour, std::string_view text);

// A text from a file or a file's name, on one line: control characters, also those that direct writing, as
// \xNN.
std::string printable(std::string_view text);

// One line on standard error.
void printError(std::string_view text);

// The value as JSON, in one line when `indent` is negative. Bytes that are not UTF-8 come out as U+FFFD,
// control characters as \uNNNN.
std::string jsonText(const nlohmann::ordered_json& value, int indent);

// One object, as jsonText has it, and a line feed on standard output.
void printJson(const nlohmann::ordered_json& object);

}  // namespace diskcachectl
