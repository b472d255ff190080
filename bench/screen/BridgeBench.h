#pragma once

namespace kestrova::bench {

/// What the bridge costs on top of decoding its pictures.
void measureBridge();

}  // namespace kestrova::bench
