#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

// Text as it goes to a person or into a JSON line.
namespace Norvctl {

// Text of a daemon or a file, made safe for a terminal as traces make it: control characters as
// \x1b and so on, a backslash doubled.
std::string escaped(std::string_view text);
// A JSON string, quotes included; what is not UTF-8 becomes the replacement character.
std::string jsonText(std::string_view text);
// JSON on one line, and indented with a line end. What is not UTF-8 becomes the replacement
// character, and all that a terminal would obey is escaped.
std::string oneLineJson(const nlohmann::ordered_json& value);
std::string jsonForPerson(const nlohmann::ordered_json& value);
// JSON whose texts have characters that a terminal would obey instead of showing them (C1 control
// characters, what turns the direction of writing), with these escaped, as JSON allows it.
std::string withoutCommands(const std::string& json);
// The errno name and text of a refusal, as in "ENOENT: no such port", or what there is of it.
std::string refusalText(int code, const std::string& text);

// The name that is spelled most like `name`, letter case apart; empty when there are none.
std::string nearest(std::string_view name, const std::vector<std::string>& names);
// The names that contain or resemble `name`, the best first, at most `most`.
std::vector<std::string> nearestNames(std::string_view name, const std::vector<std::string>& names,
                                      std::size_t most);
// The names that have `word` in them, letter case apart, each once, the shortest first.
std::vector<std::string> namesWith(std::string_view word, const std::vector<std::string>& names);
// "a, b and c".
std::string listed(const std::vector<std::string>& words);

// 1234567 as "1,234,567"; a rate or count with a unit prefix, as in "1.23 M".
std::string grouped(unsigned long long number);
std::string scaled(double value);

// As in 2026-01-31T12:00:00.123456Z.
std::string timeOfDay();

}  // namespace Norvctl
