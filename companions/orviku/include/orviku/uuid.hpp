#pragma once

#include <string>

namespace orviku {

/// A new random (version 4) UUID in its 36-character lower-case text form,
/// for example "0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10". Never throws but for
/// exhausted memory.
std::string generate_str_uuid();

}  // namespace orviku
