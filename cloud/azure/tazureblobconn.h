// TAzureBlobConn: the connector for Azure Blob Storage, chosen by option
// flag kCloudAzure.
//
// The service's protocol is not built into this library: every request
// answers kErrNotSupported with a line naming this connector and the
// operation, so a bucket pointed at Azure fails plainly instead of
// pretending. The transfer settings it would use ("CloudMaxTransferMB",
// "CloudUploadThreads") are read and logged when it is made.
#ifndef PLINTH_CLOUD_AZURE_TAZUREBLOBCONN_H_
#define PLINTH_CLOUD_AZURE_TAZUREBLOBCONN_H_

#include "cloud/tcloudconn.h"

class PLINTH_API TAzureBlobConn : public TCloudConn {
 public:
  explicit TAzureBlobConn(const TCloudOptions& options) : TCloudConn(options) {}
  const char16_t* Name() const override { return u"TAzureBlobConn"; }
  // "CloudMaxTransferMB" and "CloudUploadThreads", then the line
  // "TAzureBlobConn: MaxTransferMB=%lu UploadThreads=%u".
  void ReadSettings() override;
};

#endif  // PLINTH_CLOUD_AZURE_TAZUREBLOBCONN_H_
