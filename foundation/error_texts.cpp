// Built-in English texts of the library's error codes, keyed as RMGetErrID
// finds them (see errors.h).
#include "foundation/resources.h"

namespace {

constexpr ResourceTextSpec kErrorTexts[] = {
    {16000, "0000", u"An error occurred"},
    {16000, "Errr", u"%s (error %~d)"},

    {16100, "0001", u"Unknown error"},
    {16100, "0010", u"Invalid parameter"},
    {16100, "0011", u"The operation is not possible here or now"},
    {16100, "0012", u"The operation is not supported"},
    {16100, "0013", u"Invalid name"},
    {16100, "0014", u"The operation timed out"},
    {16100, "0015", u"The operation was aborted"},
    {16100, "0016", u"The buffer is too small"},
    {16100, "0017", u"Access denied"},
    {16100, "0018", u"Not enough memory"},
    {16100, "0019", u"Not enough system resources"},
    {16100, "0020", u"The file or device is in use"},
    {16100, "0021", u"The pipe is broken"},
    {16100, "0022", u"A program module is missing or invalid"},
    {16100, "0023", u"Already exists"},
    {16100, "0024", u"No more items"},
    {16100, "0025", u"The operation is still in progress"},
    {16100, "0026", u"The file is too large"},
    {16100, "0028", u"This machine's clock differs too much from the service's"},
    {16100, "0032", u"Encryption or decryption failed"},
    {16100, "0050", u"The printer is out of paper"},
    {16100, "0051", u"The print queue is full"},
    {16100, "0052", u"Unknown printer or printer driver"},
    {16100, "0100", u"Invalid handle"},
    {16100, "0101", u"Not found"},
    {16100, "0102", u"The device or drive is not present"},
    {16100, "0103", u"The medium is write protected"},
    {16100, "0104", u"The device is not ready"},
    {16100, "0105", u"Seek error"},
    {16100, "0106", u"Sector not found"},
    {16100, "0107", u"Read fault"},
    {16100, "0108", u"Write fault"},
    {16100, "0109", u"The file could not be opened"},
    {16100, "0110", u"Device fault"},
    {16100, "0111", u"Lock violation"},
    {16100, "0112", u"Too many open files"},
    {16100, "0113", u"Wrong disk in the drive"},
    {16100, "0114", u"End of file"},
    {16100, "0115", u"The disk is full"},
    {16100, "0116", u"Network path or connection failure"},
    {16100, "0117", u"I/O device error"},
    {16100, "0118", u"The file or folder cannot be created"},
    {16100, "0119", u"The folder is not empty"},
    {16100, "0120", u"The file cannot be copied"},
    {16100, "0121", u"Unrecognized volume"},
    {16100, "0123", u"The file or disk is corrupt"},
    {16100, "0124", u"Invalid data"},
    {16100, "0126", u"No application is associated with the file"},
    {16100, "0127", u"Data error (cyclic redundancy check)"},
    {16100, "0201", u"The CDL component failed"},

    {16101, "0025", u"Out of memory"},
    {16101, "0026", u"The requested size is too large"},
    // Persistent record headers.
    {16101, "0042", u"The container's map is damaged"},
    {16101, "0043", u"The file is not a container or cannot be read"},
    {16101, "0044", u"The container's header is invalid"},
    {16101, "0045", u"The container was not fully saved"},
    {16101, "0046", u"The container already holds a chunk of that type and id"},
    {16101, "0090", u"The record was written in the other byte order"},
    {16101, "0091", u"The record header is invalid"},
    {16101, "0092", u"The record is of another kind"},
    {16101, "0093", u"The record is of a version too old to read"},
    {16101, "0094", u"The record is of a version too new to read"},
};

const ResourceTableRegistrar kRegistrar(kErrorTexts, static_cast<int>(sizeof kErrorTexts / sizeof kErrorTexts[0]));

}  // namespace
