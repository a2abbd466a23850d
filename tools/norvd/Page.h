#pragma once

#include <memory>
#include <string>

#include "Status.h"

namespace Norvd {

// The page for people: one document without outside resources, readable as it comes, and brought up
// to date by a few lines of script where there are scripts. Any thread.
class Page {
 public:
  Page();
  ~Page();
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  std::string html(const Status& status);

 private:
  class Drawing;
  const std::unique_ptr<Drawing> drawing_;
};

// With the characters that mean something there written out.
std::string htmlEscaped(std::string_view text);

}  // namespace Norvd
