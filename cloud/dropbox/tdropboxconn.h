// TDropboxConn: the connector for Dropbox, chosen by option flag
// kCloudDropbox (ahead of every other flag).
//
// The protocol is not built into this library: every request answers
// kErrNotSupported with a line naming this connector and the operation.
// It reads "CloudMaxTransferMB" only.
#ifndef PLINTH_CLOUD_DROPBOX_TDROPBOXCONN_H_
#define PLINTH_CLOUD_DROPBOX_TDROPBOXCONN_H_

#include "cloud/tcloudconn.h"

class PLINTH_API TDropboxConn : public TCloudConn {
 public:
  explicit TDropboxConn(const TCloudOptions& options) : TCloudConn(options) {}
  const char16_t* Name() const override { return u"TDropboxConn"; }
  void ReadSettings() override { ReadMaxTransferMB(); }
};

#endif  // PLINTH_CLOUD_DROPBOX_TDROPBOXCONN_H_
