#include "Table.h"

#include <algorithm>

namespace Norvctl {

namespace {

const char* tint(const Colours& colours, Table::Tone tone) {
  switch (tone) {
    case Table::Tone::good:
      return colours.good();
    case Table::Tone::warning:
      return colours.warning();
    case Table::Tone::bad:
      return colours.bad();
    case Table::Tone::faint:
      return colours.faint();
    case Table::Tone::plain:
      break;
  }
  return "";
}

// The first `columns` characters of UTF-8 text; a cut one ends in "…".
std::string cut(const std::string& text, std::size_t columns) {
  if (columnsOf(text) <= columns) return text;
  std::size_t at = 0;
  for (std::size_t seen = 0; at < text.size(); ++at) {
    const bool starts = (text[at] & 0xc0) != 0x80;
    if (starts && ++seen == columns) break;
  }
  return columns == 0 ? std::string() : text.substr(0, at) + "…";
}

}  // namespace

std::string Table::text(const Colours& colours, std::size_t width) const {
  std::vector<std::size_t> widths;
  for (const Column& column : columns_) widths.push_back(columnsOf(column.title));
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], columnsOf(row[i].text));
    }
  }
  std::string out;
  const auto line = [&](const std::vector<Cell>& row, const char* all) {
    std::string content;
    std::size_t used = 0;
    std::size_t blanks = 0;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::size_t room = width == 0 ? widths[i] : width - std::min(width, used + blanks);
      const std::string shown = cut(row[i].text, room);
      const std::size_t columns = columnsOf(shown);
      const std::size_t pad = widths[i] - std::min(widths[i], columns);
      const bool right = columns_[i].align == Align::right;
      if (!shown.empty()) {
        const std::size_t before = blanks + (right ? pad : 0);
        const char* tone = *all ? all : tint(colours, row[i].tone);
        content.append(before, ' ').append(tone).append(shown).append(*tone ? colours.end() : "");
        used += before + columns;
        blanks = right ? 0 : pad;
      } else {
        blanks += pad;
      }
      blanks += 2;
      if (width != 0 && used >= width) break;
    }
    out += content + "\n";
  };
  std::vector<Cell> titles;
  for (const Column& column : columns_) titles.emplace_back(column.title);
  line(titles, colours.strong());
  for (const auto& row : rows_) line(row, "");
  return out;
}

}  // namespace Norvctl
