// TS3Conn: the connector for Amazon S3 and S3-compatible services.
#ifndef PLINTH_CLOUD_S3_TS3CONN_H_
#define PLINTH_CLOUD_S3_TS3CONN_H_

#include "cloud/tcloudconn.h"

class PLINTH_API TS3Conn : public TCloudConn {
 public:
  explicit TS3Conn(const TCloudOptions& options) : TCloudConn(options) {}
  const char16_t* Name() const override { return u"TS3Conn"; }
  void ReadSettings() override {
    ReadMaxTransferMB();
    ReadUploadThreads();
    ReadDownloadThreads();
    ReadDownloadPartSizeTier();
  }
};

#endif  // PLINTH_CLOUD_S3_TS3CONN_H_
