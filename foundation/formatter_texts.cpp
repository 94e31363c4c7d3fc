// Built-in texts of the formatter (group 16000).
#include "foundation/resources.h"

namespace {

const ResourceTextSpec kFormatterTexts[] = {
    {16000, "Nevr", u"Never"},
    {16000, "Zero", u"0"},
    // Unit letters of the size conversions: kilo to yotta, then in lower case.
    {16000, "KMkm", u"KMGTPEZYkmgtpezy"},
    // The words of the "%Y" conversion.
    {16000, "Yes_", u"Yes"},
    {16000, "No__", u"No"},
};

const ResourceTableRegistrar kRegistrar(kFormatterTexts, sizeof kFormatterTexts / sizeof kFormatterTexts[0]);

}  // namespace
