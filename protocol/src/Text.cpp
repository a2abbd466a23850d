#include <algorithm>
#include <cctype>
#include <numeric>
#include <vector>

#include <Bess/Text.h>

namespace Bess {

namespace {

constexpr std::string_view digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t longest = 100;

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

}  // namespace

std::string base64(std::string_view bytes) {
  std::string text;
  std::size_t bits = 0;
  unsigned held = 0;
  for (const char byte : bytes) {
    held = held << 8 | static_cast<unsigned char>(byte);
    for (bits += 8; bits >= 6; bits -= 6) text += digits[held >> (bits - 6) & 63];
  }
  if (bits > 0) text += digits[held << (6 - bits) & 63];
  while (text.size() % 4 != 0) text += '=';
  return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
  std::string bytes;
  std::size_t bits = 0;
  unsigned held = 0;
  const std::size_t end = std::min(text.find('='), text.size());
  if (text.size() - end > 2 || text.find_first_not_of('=', end) != std::string_view::npos)
    return {};
  if (end % 4 == 1) return {};
  for (const char c : text.substr(0, end)) {
    const std::size_t digit = digits.find(c == '-' ? '+' : c == '_' ? '/' : c);
    if (digit == std::string_view::npos) return {};
    held = held << 6 | static_cast<unsigned>(digit);
    bits += 6;
    if (bits >= 8) bytes += static_cast<char>(held >> (bits -= 8) & 255);
  }
  return bytes;
}

std::size_t unlikeness(std::string_view one, std::string_view other) {
  const std::string a = lower(one.substr(0, longest));
  const std::string b = lower(other.substr(0, longest));
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t exchange = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, exchange});
    }
  }
  return row.back();
}

}  // namespace Bess
