// Path conventions of the host system.
#ifndef PLINTH_PLATFORM_PATH_H_
#define PLINTH_PLATFORM_PATH_H_

namespace platform {

// The delimiter the library writes between path segments. Readers accept
// both '/' and '\\' wherever a path is taken apart.
inline constexpr char16_t kPathDelimiter = u'/';

}  // namespace platform

#endif  // PLINTH_PLATFORM_PATH_H_
