// TBackblazeConn: the connector for Backblaze B2's native interface,
// chosen by option flag kCloudBackblaze.
//
// The native protocol is not built into this library: every request
// answers kErrNotSupported with a line naming this connector and the
// operation. (B2's S3-compatible endpoint, "s3.REGION.backblazeb2.com",
// works through the S3 connector: leave the flag clear for it.) It reads
// no transfer settings.
#ifndef PLINTH_CLOUD_BACKBLAZE_TBACKBLAZECONN_H_
#define PLINTH_CLOUD_BACKBLAZE_TBACKBLAZECONN_H_

#include "cloud/tcloudconn.h"

class PLINTH_API TBackblazeConn : public TCloudConn {
 public:
  explicit TBackblazeConn(const TCloudOptions& options) : TCloudConn(options) {}
  const char16_t* Name() const override { return u"TBackblazeConn"; }
  void ReadSettings() override {}
};

#endif  // PLINTH_CLOUD_BACKBLAZE_TBACKBLAZECONN_H_
