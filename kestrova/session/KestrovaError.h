#pragma once

// The public place of the error type; the signalling layer, below this one, raises errors too.
#include <kestrova/signalling/KestrovaError.h>  // IWYU pragma: export
