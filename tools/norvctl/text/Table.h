#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "Terminal.h"

namespace Norvctl {

// Rows of text in aligned columns, for a person.
class Table {
 public:
  enum class Align { left, right };
  struct Column {
    std::string title;
    Align align = Align::left;
  };
  enum class Tone { plain, good, warning, bad, faint };
  struct Cell {
    Cell(std::string shown, Tone tint = Tone::plain) : text(std::move(shown)), tone(tint) {}
    Cell(const char* shown) : text(shown) {}
    std::string text;  // already safe for a terminal
    Tone tone = Tone::plain;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  // As many cells as there are columns, or fewer.
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  bool empty() const { return rows_.empty(); }
  // Lines of at most `width` columns, longer ones are cut; 0: of any length.
  std::string text(const Colours& colours, std::size_t width = 0) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace Norvctl
