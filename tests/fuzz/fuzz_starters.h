// Starter inputs of a harness: each harness defines starters() with a handful of
// inputs in its own input format, built from what the peripherals really
// send (the board models' frame builders and reply forms). The replay
// driver writes them out (--write-starters DIR, see scripts/gen-fuzz-starters)
// as the checked-in corpus tests/fuzz/corpus/<harness>/.
#pragma once

#include <string>
#include <vector>

namespace avmfuzz {

std::vector<std::string> starters();

} // namespace avmfuzz
