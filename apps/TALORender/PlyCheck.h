#pragma once

#include <string_view>

namespace render {

/// Whether the bytes are those of a PLY file.
bool isPly(std::string_view bytes);

/// Whether a PLY file holds every element that its header announces.
///
/// A file that was cut off on its way is not told from a whole one by the import library, which
/// makes up what is missing. False also for a header that cannot be understood.
bool isCompletePly(std::string_view bytes);

} // namespace render
