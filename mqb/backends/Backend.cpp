// Backend.cpp: the default of the backend interface that needs the complete
// queue type.
#include "Backend.h"
#include "Queue.h"

namespace mqb {

std::unique_ptr<Queue> Backend::openQueue(int depth) {
    (void)depth;
    return nullptr;
}

}  // namespace mqb
