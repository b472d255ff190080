#include <kestrova/platform/linux/mediasoup/StatsList.h>

#include <api/stats/rtc_stats.h>
#include <api/stats/rtc_stats_report.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kestrova::mediasoup {
namespace {

using Member = webrtc::RTCStatsMemberInterface;
using boost::json::storage_ptr;

/// A whole number is written without a fraction in JSON, and so it is an integer here, too.
Value numberOf(double number) {
  constexpr double exact = 9007199254740992.0;  // 2^53
  if (!std::isfinite(number)) return nullptr;
  if (std::trunc(number) == number && std::abs(number) <= exact)
    return static_cast<std::int64_t>(number);
  return number;
}

template <class T>
Value valueOf(const T& plain, const storage_ptr& storage) {
  if constexpr (std::is_same_v<T, std::string>)
    return Value(std::string_view(plain), storage);
  else if constexpr (std::is_same_v<T, double>)
    return numberOf(plain);
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return std::in_range<std::int64_t>(plain) ? Value(static_cast<std::int64_t>(plain))
                                              : Value(plain);
  else
    return Value(plain);
}

template <class T>
Value valueOf(const std::vector<T>& sequence, const storage_ptr& storage) {
  List list(storage);
  for (const auto& element : sequence) list.push_back(valueOf(element, storage));
  return list;
}

template <class T>
Value valueOf(const std::map<std::string, T>& entries, const storage_ptr& storage) {
  Dictionary dictionary(storage);
  for (const auto& [key, value] : entries) dictionary.emplace(key, valueOf(value, storage));
  return dictionary;
}

template <class T>
Value valueOf(const Member& member, const storage_ptr& storage) {
  return valueOf(*member.cast_to<webrtc::RTCStatsMember<T>>(), storage);
}

Value valueOf(const Member& member, const storage_ptr& storage) {
  switch (member.type()) {
    case Member::kBool:
      return valueOf<bool>(member, storage);
    case Member::kInt32:
      return valueOf<std::int32_t>(member, storage);
    case Member::kUint32:
      return valueOf<std::uint32_t>(member, storage);
    case Member::kInt64:
      return valueOf<std::int64_t>(member, storage);
    case Member::kUint64:
      return valueOf<std::uint64_t>(member, storage);
    case Member::kDouble:
      return valueOf<double>(member, storage);
    case Member::kString:
      return valueOf<std::string>(member, storage);
    case Member::kSequenceBool:
      return valueOf<std::vector<bool>>(member, storage);
    case Member::kSequenceInt32:
      return valueOf<std::vector<std::int32_t>>(member, storage);
    case Member::kSequenceUint32:
      return valueOf<std::vector<std::uint32_t>>(member, storage);
    case Member::kSequenceInt64:
      return valueOf<std::vector<std::int64_t>>(member, storage);
    case Member::kSequenceUint64:
      return valueOf<std::vector<std::uint64_t>>(member, storage);
    case Member::kSequenceDouble:
      return valueOf<std::vector<double>>(member, storage);
    case Member::kSequenceString:
      return valueOf<std::vector<std::string>>(member, storage);
    case Member::kMapStringUint64:
      return valueOf<std::map<std::string, std::uint64_t>>(member, storage);
    case Member::kMapStringDouble:
      return valueOf<std::map<std::string, double>>(member, storage);
  }
  return nullptr;
}

Dictionary entryOf(const webrtc::RTCStats& stats, const storage_ptr& storage) {
  constexpr double microsecondsInMs = 1000;
  const auto members = stats.Members();
  Dictionary entry(storage);
  entry.reserve(members.size() + 3);
  entry["type"] = stats.type();
  entry["id"] = std::string_view(stats.id());
  entry["timestamp"] = static_cast<double>(stats.timestamp_us()) / microsecondsInMs;
  for (const auto* member : members)
    if (member->is_defined())
      if (auto value = valueOf(*member, storage); !value.is_null())
        entry.emplace(member->name(), std::move(value));
  return entry;
}

}  // namespace

std::string statsText(const webrtc::RTCStatsReport& report) {
  constexpr std::string_view key = "\"timestamp\":";
  constexpr std::size_t digits = 3;
  const auto written = report.ToJson();
  std::string_view json(written);
  std::string result;
  result.reserve(json.size() + json.size() / 64);
  for (auto at = json.find(key); at != json.npos; at = json.find(key)) {
    const auto number = at + key.size();
    const auto end = std::min(json.find_first_not_of("0123456789", number), json.size());
    const bool isLong = end - number > digits;
    result.append(json.substr(0, isLong ? end - digits : end));
    if (isLong) result.append(1, '.').append(json.substr(end - digits, digits));
    json.remove_prefix(end);
  }
  return result.append(json);
}

List statsList(const webrtc::RTCStatsReport& report) {
  const auto storage = storageOfOneUse();
  List list(storage);
  list.reserve(report.size());
  for (const auto& stats : report) list.push_back(entryOf(stats, storage));
  return list;
}

}  // namespace kestrova::mediasoup
