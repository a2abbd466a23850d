#include <Standin/Pace.h>

#include <charconv>
#include <stdexcept>

namespace Standin {

namespace {

constexpr double minRate = 0.001;
constexpr double maxRate = 1e6;

}  // namespace

void Pace::latencyIs(const std::string& text) {
  const char* end = text.data() + text.size();
  std::uint32_t least = 0;
  auto [at, error] = std::from_chars(text.data(), end, least);
  std::uint32_t most = least;
  if (error == std::errc() && end - at > 2 && at[0] == '.' && at[1] == '.') {
    const auto result = std::from_chars(at + 2, end, most);
    at = result.ptr;
    error = result.ec;
  }
  if (error != std::errc() || at != end || most < least)
    throw std::invalid_argument("'" + text + "' is no latency; give milliseconds, as 5 or 5..20");
  latencyMs = least;
  maxLatencyMs = most;
}

void Pace::rateIs(double perSecond) {
  if (perSecond != 0 && !(perSecond >= minRate && perSecond <= maxRate))
    throw std::invalid_argument(
        "a rate is answers per second, from 0.001 to 1000000, or 0 for no limit");
  rate = perSecond;
}

}  // namespace Standin
