#include "foundation/resources.h"

#include <cerrno>
#include <fstream>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"

namespace {

// Every log line with "%E" looks texts up, so reads share the lock and
// each table is a hash index: (group << 32 | key) -> text.
struct Store {
  std::shared_mutex lock;
  std::unordered_map<uint64_t, const char16_t*> builtin;
  std::unordered_map<uint64_t, TString> host;
};

Store& TheStore() {
  static Store* store = new Store();  // lives to process end: registrars run at load
  return *store;
}

uint64_t Slot(unsigned short group, unsigned int key) { return (uint64_t{group} << 32) | key; }

// Decodes the escapes of a resource file text.
std::string Unescape(const std::string& in) {
  std::string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '\\' || i + 1 == in.size()) { out += in[i]; continue; }
    char c = in[++i];
    switch (c) {
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 's': out += ' '; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += c; break;
    }
  }
  return out;
}

bool ParseLine(const std::string& line, unsigned short* group, unsigned int* key, std::string* text) {
  size_t i = 0;
  unsigned long g = 0;
  size_t digits = 0;
  while (i < line.size() && line[i] >= '0' && line[i] <= '9' && digits < 6) {
    g = g * 10 + static_cast<unsigned long>(line[i] - '0');
    ++i;
    ++digits;
  }
  if (digits == 0 || g > 65535 || i >= line.size() || (line[i] != ' ' && line[i] != '\t')) return false;
  ++i;
  if (i + 4 > line.size()) return false;
  char k[5] = {line[i], line[i + 1], line[i + 2], line[i + 3], 0};
  for (int j = 0; j < 4; ++j) {
    if (static_cast<unsigned char>(k[j]) < 0x21 || static_cast<unsigned char>(k[j]) > 0x7E) return false;
  }
  i += 4;
  if (i < line.size()) {
    if (line[i] != ' ' && line[i] != '\t') return false;
    ++i;
  }
  *group = static_cast<unsigned short>(g);
  *key = ResKey(k);
  *text = Unescape(line.substr(i));
  return true;
}

}  // namespace

ResourceTableRegistrar::ResourceTableRegistrar(const ResourceTextSpec* table, int count) {
  Store& store = TheStore();
  std::unique_lock<std::shared_mutex> guard(store.lock);
  // The first registration of a text wins, as a scan in load order would.
  for (int i = 0; i < count; ++i) store.builtin.emplace(Slot(table[i].group, ResKey(table[i].key)), table[i].text);
}

int LoadResourceText(unsigned short group, unsigned int key, TString* out) {
  Store& store = TheStore();
  std::shared_lock<std::shared_mutex> guard(store.lock);
  uint64_t slot = Slot(group, key);
  if (!store.host.empty()) {
    auto it = store.host.find(slot);
    if (it != store.host.end()) {
      *out = it->second;
      return 1;
    }
  }
  auto it = store.builtin.find(slot);
  if (it != store.builtin.end()) {
    *out = it->second;
    return 1;
  }
  out->Clear();
  return 0;
}

int LoadResourceFile(const TString& path) {
  std::ifstream in(TStringAsString(path), std::ios::binary);
  if (!in) {
    int code = MapErrno(errno, &path);
    LogLine(514, u"LoadResourceFile: cannot open <%s>, error %E", &path, code);
    return code;
  }
  std::map<uint64_t, TString> loaded;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
    size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    unsigned short group = 0;
    unsigned int key = 0;
    std::string text;
    if (!ParseLine(line, &group, &key, &text)) {
      TString shown = TStringFromUTF8(line);
      LogLine(514, u"LoadResourceFile: line %~d ignored <%s>", number, &shown);
      continue;
    }
    loaded[Slot(group, key)] = TStringFromUTF8(text);
  }
  Store& store = TheStore();
  std::unique_lock<std::shared_mutex> guard(store.lock);
  for (auto& [slot, text] : loaded) store.host[slot] = std::move(text);
  return 0;
}

void ClearHostResources() {
  Store& store = TheStore();
  std::unique_lock<std::shared_mutex> guard(store.lock);
  store.host.clear();
}
