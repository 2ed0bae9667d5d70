// Name-server discovery's snapshot of the resolver file.
#pragma once

namespace vekdns::detail {

// Drops the snapshot of the last read: the next query reads the file. Our
// own rewrites of the file call it, whatever the file's stamps say.
void forget_resolver_snapshot();

} // namespace vekdns::detail
