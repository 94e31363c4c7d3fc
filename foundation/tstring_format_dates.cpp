#include "foundation/tstring.h"
#include "foundation/tstring_format_internal.h"

namespace format_internal {

void FormatTimeValue(const ConversionSpec& spec, const void* value, OutBuffer* out, TString* raw) {
  (void)value;
  (void)out;
  if (spec.conversion == u'I') {
    raw->Clear();
    return;
  }
  *raw = u"0000-00-00T00:00:00.000Z+00:00";
}

}  // namespace format_internal
