#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Page.h"

namespace Norvd {

// The pipeline as a picture. Graphviz lays it out, on a thread of its own and only when modules or
// connections have changed; rates and what differs are filled in each time. Any thread.
class Page::Drawing {
 public:
  // The picture, or words in its place while it is laid out, where it cannot be, or where it would
  // show nothing for its size.
  std::string html(const Picture& picture);

 private:
  void layOut(const std::string& dot);

  std::mutex mutex_;
  std::condition_variable laidOut_;
  std::string wantedDot_;
  std::string dot_;  // that `svg_` is of
  std::string svg_;
  std::string trouble_;  // why there is no picture of `dot_`
  bool busy_ = false;
};

}  // namespace Norvd
