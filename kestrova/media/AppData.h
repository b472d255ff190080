#pragma once

#include <kestrova/platform/Values.h>

#include <string>

namespace kestrova {

/// A screen share is told from a webcam only by this mark in the producer's application data. Text
/// that is no dictionary counts as unmarked.
inline bool isShare(const std::string& appData) {
  return boolean(parseDictionary(appData), "share", false);
}

}  // namespace kestrova
