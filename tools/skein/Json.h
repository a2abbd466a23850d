#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>

#include <Lumo/TraceSink.h>
#include <Skein/Reader.h>

// An argument as JSON: numbers and truth values as such, addresses as their text, QNull as null.
inline nlohmann::json jsonOf(const Skein::Value& value) {
  return std::visit(
      [](const auto& held) -> nlohmann::json {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, Skein::Address>) {
          char text[24];
          std::snprintf(text, sizeof text, "0x%llx", held.value);
          return text;
        } else if constexpr (std::is_same_v<Held, std::string_view>) {
          return std::string(held);
        } else if constexpr (std::is_same_v<Held, char>) {
          return std::string(1, held);
        } else if constexpr (std::is_same_v<Held, Skein::QNull>) {
          return nullptr;
        } else {
          return held;
        }
      },
      value);
}

inline nlohmann::json argumentsOf(const Skein::Record& record) {
  nlohmann::json arguments = nlohmann::json::array();
  for (const Skein::Value& value : record.arguments()) arguments.push_back(jsonOf(value));
  return arguments;
}

// The text with bytes that are not UTF-8 replaced, and what is no plain character shown as in a
// trace line.
inline std::string readable(const std::string& text) {
  std::string shown;
  Lumo::appendTraceText(shown, text);
  const auto replace = nlohmann::json::error_handler_t::replace;
  return nlohmann::json::parse(nlohmann::json(shown).dump(-1, ' ', false, replace));
}

// Bytes that are not UTF-8 come out as the replacement character.
inline std::string textOf(const nlohmann::json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
