#include "cloud/cloud_object.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr int kDateCount = 4;

const TDate& NoDate() {
  static const TDate kNoDate;
  return kNoDate;
}

bool NameBefore(const TCloudObject& a, const TCloudObject& b) { return a.GetName() < b.GetName(); }

}  // namespace

TCloudObject::TCloudObject() = default;

TCloudObject::TCloudObject(const TString& name, eObjectType type, const TString& text)
    : m_name(name), m_text(text), m_type(type) {}

TCloudObject::TCloudObject(const TString& name, eObjectType type, const TString& text, const TString& etag,
                           uint64_t size, const TDate& date1, const TDate& date2, const TDate& date3,
                           const TDate& date4)
    : m_name(name), m_text(text), m_etag(etag), m_dates{date1, date2, date3, date4}, m_size(size), m_type(type) {}

TCloudObject::~TCloudObject() = default;

void TCloudObject::Reset() { *this = TCloudObject(); }

bool TCloudObject::operator<(TCloudObject other) const { return m_name < other.m_name; }

const TDate& TCloudObject::GetDate(int index) const {
  return index >= 0 && index < kDateCount ? m_dates[index] : NoDate();
}

void TCloudObject::SetDate(int index, const TDate& date) {
  if (index >= 0 && index < kDateCount) m_dates[index] = date;
}

void MergeTCloudObjectVectors(const std::vector<TCloudObject>& a, const std::vector<TCloudObject>& b,
                              std::vector<TCloudObject>& out) {
  // Built apart, so that `out` may be one of the inputs.
  std::vector<TCloudObject> merged;
  merged.reserve(a.size() + b.size());
  std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(merged), NameBefore);
  out = std::move(merged);
}

void ContinuationMarker::Reset() {
  marker.clear();
  token.clear();
}
