// The scan for parameter sets, on any picture.
#include "engine/parameter_sets.h"
#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ParameterSets sets = scanParameterSets(data, size);
    if (!sets.found) return 0;
    require(sets.position + 4 < size && sets.length <= size - sets.position);
    const uint8_t* const sps = data + sets.position;
    require(sps[0] == 0 && sps[1] == 0 && sps[2] == 0 && sps[3] == 1);
    return 0;
}
