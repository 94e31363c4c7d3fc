#include "cloud/azure/tazureblobconn.h"

#include "foundation/format_checked.h"

void TAzureBlobConn::ReadSettings() {
  ReadMaxTransferMB();
  ReadUploadThreads();
  LogLineChecked(519, u"TAzureBlobConn: MaxTransferMB=%lu UploadThreads=%u", static_cast<uint64_t>(m_partSize / kCloudMiB),
                 m_uploadThreads);
}
