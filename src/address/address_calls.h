// Worker reuse of the asynchronous calls: see base/worker_pool.h.
#pragma once

#include "base/worker_pool.h"
