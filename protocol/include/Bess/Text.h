#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Bytes and names as they stand in texts. Any thread.
namespace Bess {

// As the JSON form of messages has bytes: with padding. Back it also takes the alphabet of URLs,
// and does without padding; none if it is no base64.
std::string base64(std::string_view bytes);
std::optional<std::string> fromBase64(std::string_view text);

// How many letters to insert, delete or exchange to make one name of the other, letter case apart;
// of their first 100, as the time goes with the product of the lengths.
std::size_t unlikeness(std::string_view one, std::string_view other);

}  // namespace Bess
