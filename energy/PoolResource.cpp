#include "kelo/PoolResource.h"

namespace kelo {

// The limit is part of the record's construction interface only; nothing in a record depends on
// it, so it is not stored.
PoolResource::PoolResource(int64_t /*withLimit*/) {}

}  // namespace kelo
