#pragma once

#include "Options.h"
#include <string>

namespace kestrova::meet {

/// Encrypts the meeting, if a key is given: by --key, or else --key-file, or else KESTROVA_KEY.
/// \throws UsageError when it can't be used
void beginEncryption(const Options& options);
/// Reads the file again, which everybody does who has it. \throws std::runtime_error
void rereadKey(const std::string& keyFile);
/// Goes on to the key behind the present one. \throws std::runtime_error without a key
void ratchetKey();

}  // namespace kestrova::meet
