#pragma once

#include <vector>

#include "engine/cascade.h"
#include "engine/pass.h"

namespace tarvomeldric {

// The first attempt of a call whose policy hedges: when it takes longer than usual, the next of the
// candidates is asked as well. The first good answer counts; the other request is ended, and nobody
// is blamed for it. A first request that fails is recorded as it always is, and the second one is
// waited for.
//
// `first` comes in with the target and its slot. It goes out with the attempt that counts: the one
// that answered, else the first one, and then recorded, where a second one failed as well. False
// when nothing was sent.
Task<bool> attempt_hedged(Pass& pass, FirstAttempt& first);

}  // namespace tarvomeldric
