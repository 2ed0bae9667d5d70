// Name-server discovery's snapshot of the resolver file.
#pragma once

#include <cstdint>

namespace vekdns::detail {

// Drops the snapshot of the last read: the next query reads the file. Our
// own rewrites of the file call it, whatever the file's stamps say.
void forget_resolver_snapshot();

// How long a file must have been still before its snapshot is reused; a
// negative value restores the default (two seconds). For tests.
void set_resolver_racy_window(int64_t ns);

} // namespace vekdns::detail
