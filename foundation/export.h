// The one export macro of libplinth20. Symbols are hidden by default; only
// what is marked PLINTH_API is part of the library's binary interface.
#ifndef PLINTH_FOUNDATION_EXPORT_H_
#define PLINTH_FOUNDATION_EXPORT_H_

#define PLINTH_API __attribute__((visibility("default")))

#endif  // PLINTH_FOUNDATION_EXPORT_H_
