#!/usr/bin/env bash
# The shared library exports the library's interface and hides its internals.
set -u
lib="$1"
fail() { echo "exports_check: $*" >&2; exit 1; }
syms=$(nm -D --defined-only -C "$lib") || fail "nm failed"
for want in 'MemAlloc(' 'MemAvail(' 'TMemory::SetSize(' 'DebugLogf(' 'HookDebugLogf(' 'HookQueryf(' 'Debug(' \
            'TString::TString(' 'TString::Base64Encode(' 'MapError(' 'MapAndLogErr(' 'RMGetErrID(' 'MapErrno(' \
            'TestPlinthEnvirons(' 'GetDiskWorkingSpace(' 'OSCheck(' 'PlinthEnv' 'LoadResourceFile(' \
            'TString::SPrintf(' 'TString::VSPrintf(' 'TString::SScanf(' 'DoScanf(' 'TDate::FromISOString(' \
            'TDate::sum(' 'TInterval::normalize(' 'TDateStep::Export(' 'TDict::Define(' 'TDict64::Import(' \
            'TDictLinear::Define(' 'TList::AddAt(' 'HostToBigEndian(' '_checkpersist(' 'TDataBuffer::Insert(' \
            'TTypedBuffer<unsigned int>::Find(' 'TBufferedUint8Stream::Get(' 'CRC32::update(' 'HashBlock(' \
            'TMD5::InitHash(' 'SHA1Digest::update(' 'TBlockHash::HashBlock(' 'TFileLoc::' 'TFile::ReadAt(' \
            'TTextFile::ReadLine(' 'TSectionKeyFile::GetKey(' 'TKeyedFile::' 'UGetPrivateProfileString(' \
            'ChunkManager::CHOpen(' 'ChunkManager::CHSave(' 'ChunkManager::CHVerify(' 'ChunkManager::CHTruncate(' \
            'ChunkManager::CHAppend(' 'CHRecover(' 'CHDecodeFileHeader(' 'CHEncryptConfig(' \
            'TMemPool::TMemPool(' 'TMemPool::GetFreeMemBlock(' 'TMemPool::FreeMemBlock(' 'TMemPool::GetOldestBlock(' \
            'TMemPool::ArchiveOldestBlock(' 'TMemPool::Collect(' 'TMemPool::LockFreeMem(' 'TMemPool::GetMaxPoolMem(' \
            'TMemory::SetMemPool(' 'TMemory::PooledMemPtr(' 'TMemory::createMapFile(' 'TMemory::MapFromFile(' \
            'TMemory::ArchiveToFile(' 'TMemory::deleteMapFile(' 'TMemory::IsResident(' \
            'ElementSpace::LmAdd(' 'ElementSpace::LmValid(' 'ElementSpace::LmRepair(' 'ElementSpace::LmFromBE(' \
            'LmStoreChunk(' 'LmLoadChunk(' \
            'TCloudOptions::SetFromURI(' 'TCloudOptions::GetRegion(' 'TCloudOptions::SetAccessKey(' \
            'TCloudMetaData::SetFromHeader(' 'TCloudMetaData::ValidateMetaDataDates(' 'CanUseCloudMetaData(' \
            'TCloudObject::TCloudObject(' 'MergeTCloudObjectVectors(' 'ContinuationMarker::Reset(' \
            'TUpDownStats::Reset(' 'TCloudBucket::TCloudBucket(' 'TCloudBucket::Verify(' 'TCloudBucket::SetLimits(' \
            'TCloudBucket::OpenFileForWrite(' 'TCloudBucket::ReadToTMemory(' 'TCloudBucket::IsRetryError(' \
            'TCloudBucket::CreateCloudStorageGroupFile(' 'TCloudConn::put_ObjectLock(' 'ReadCloudSetting(' \
            'TS3Conn::TS3Conn(' 'TS3Conn::DeleteAllCloudObjectVersions(' 'TS3Conn::GetCloudObjectVersions(' \
            'TS3Conn::get_BucketVersioning(' 'TS3Conn::put_BucketVersioning(' 'TS3Conn::ListBucketToXML(' \
            'TS3Conn::verifyInRetry(' 'TS3Conn::put_ObjectLock(' ; do
  grep -qF "$want" <<<"$syms" || fail "missing export: $want"
done
# Internal helpers stay hidden.
for hidden in 'LogLine(' 'platform::' 'lm_internal::' 'TCloudWriteFile::' 'TCloudReadFile::' 'TTokenBucket::' \
              'CloudRetry(' 'ParseAzureLocation(' 'S3SignRequest(' 'TS3Client::' 'S3ParseListing(' ; do
  if grep -qF "$hidden" <<<"$syms"; then fail "internal symbol exported: $hidden"; fi
done
echo "exports_check: ok"
