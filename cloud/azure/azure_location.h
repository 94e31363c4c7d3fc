// The Azure location parser: turns the location text of an Azure Blob
// Storage account into the "HOST/CONTAINER/PATH" form the cloud options
// split, and fills host, container (bucket) and path from it.
//
// Accepted forms (case-blind in the host, blanks around already trimmed):
//   ACCOUNT.blob.core.windows.net/CONTAINER/PATH...      public cloud
//   ACCOUNT.blob.core.usgovcloudapi.net/CONTAINER/PATH... US Government cloud
//   https://... or http://... of either (the scheme is dropped; the HTTPS
//                                          flag is the options' business)
//   ACCOUNT/CONTAINER/PATH...              a bare account name (letters and
//                                          digits only): the host is made
//                                          from it, in the US Government
//                                          cloud when `usGov`
// The account name is lower-cased in the host, as Azure's names are. After
// a dropped scheme the blanks are trimmed again, and a doubled scheme goes
// too, so the rewritten text parses to the same fields a second time.
// Any other host (a dot, a port, other characters) passes unchanged but for
// the scheme, with the fields split from it the same way, so a private
// endpoint keeps working.
#ifndef PLINTH_CLOUD_AZURE_AZURE_LOCATION_H_
#define PLINTH_CLOUD_AZURE_AZURE_LOCATION_H_

#include "foundation/tstring.h"

// Rewrites `*text` to "HOST/CONTAINER/PATH..." and fills the three fields;
// `path` ends in "/" when not empty. Never fails.
void ParseAzureLocation(TString* text, bool usGov, TString* host, TString* container, TString* path);

#endif  // PLINTH_CLOUD_AZURE_AZURE_LOCATION_H_
