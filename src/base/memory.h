// Every allocation of the library goes through the platform allocator with the
// calling source file and line, so accounting and fault injection see it.
#pragma once

#include "vek_os_adapter.h"

#define VEK_MALLOC(size) PAL_MemTypeMallocD((size), 0, __LINE__, __FILE__)
#define VEK_MALLOC_ZERO(size) PAL_MemTypeMallocS((size), 0, 0, __LINE__, __FILE__)
#define VEK_STRDUP(text) PAL_StrDupEx((text), __LINE__, __FILE__)
#define VEK_FREE(block) PAL_MemTypeFreeD((block), 0, __LINE__, __FILE__)
