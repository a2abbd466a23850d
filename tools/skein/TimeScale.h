#pragma once

#include <vector>

#include <Lumo/Types.h>

// From times to places along an axis, long times in which nothing happened folded to a fixed width.
class TimeScale {
 public:
  struct Span {
    U64 beginNs;
    U64 endNs;
  };
  struct Part : Span {
    double from;  // places
    double to;
    bool folded;
  };
  static constexpr double foldWidth = 22;

  // `busy`, in any order and overlapping as they like, say where something happens; what lies
  // between two of them may be folded. The axis goes from `from` to `to`.
  TimeScale(std::vector<Span> busy, Span whole, double from, double to);

  double at(U64 timeNs) const;
  double nsPerUnit() const { return nsPerUnit_; }  // outside of folds
  // In the order of time, without gaps.
  const std::vector<Part>& parts() const { return parts_; }

 private:
  std::vector<Part> parts_;
  double nsPerUnit_ = 1;
};
