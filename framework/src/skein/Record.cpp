#include "Record.h"

#include <Lumo/TraceSink.h>

namespace Skein {

void Record::appendText(std::string& out) const {
  std::string_view rest = site->text;
  std::size_t index = 0;
  const auto put = [&out](const char* text, std::size_t length) { out.append(text, length); };
  const auto take = [&](const auto& value, bool clipped) {
    const auto place = site->places ? rest.find("%s") : std::string_view::npos;
    out.append(rest.substr(0, place));
    if (place != std::string_view::npos) {
      rest.remove_prefix(place + 2);
    } else {
      rest = {};
      if (blankBeforeArgument(site->text, index)) out.push_back(' ');
    }
    if constexpr (std::is_same_v<decltype(value), const Address&>) {
      render(reinterpret_cast<const void*>(value.value), put);
    } else {
      render(value, put);
    }
    if (clipped) out.append("...");
    ++index;
  };
  decode(site->codes, raw, take);
  out.append(rest);
}

void Record::appendLine(std::string& out) const {
  std::string text;
  appendText(text);
  Lumo::TraceLine line;
  line.facility = site->facility;
  line.level = site->level;
  line.file = site->file.c_str();
  line.line = site->line;
  line.function = site->function.c_str();
  line.text = text;
  line.timeNs = timeNs;
  line.thread = thread;
  Lumo::appendTraceLine(out, line);
}

std::vector<Value> Record::arguments() const {
  std::vector<Value> values;
  decode(site->codes, raw, [&](const auto& value, bool) { values.emplace_back(value); });
  return values;
}

}  // namespace Skein
