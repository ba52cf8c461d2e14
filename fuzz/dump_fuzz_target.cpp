// Arbitrary bytes through the download-dump parser of knx-download-host. It
// may only ever throw DumpError; what it accepts must hang together: every
// interface object listed once, properties holding exactly what was given,
// memory within its limit, and the same result for the same text.
#include <DownloadDump.h>

#include <KnxStack/InterfaceObject.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace {

using lkdh::host::DownloadDump;
using lkdh::host::DumpError;

void Check(bool condition) {
  if (!condition) std::abort();  // a finding: the parser's result contradicts itself
}

std::string FullText(const DumpError& error) {
  const std::string& location = error.Location();
  return location.empty() ? error.Message() : location + ": " + error.Message();
}

void CheckError(const DumpError& error) {
  const std::string& location = error.Location();
  Check(location.empty() || location.front() == '/');
  Check(!error.Message().empty());
  // Keys are escaped: the location holds no control byte, so what() is the whole text.
  for (const char c : location) Check(static_cast<unsigned char>(c) >= 0x20 && c != '\x7f');
  Check(std::string(error.what()) == FullText(error));
}

// Everything two parses of one text must agree on, the memory image included.
bool Same(const DownloadDump& a, const DownloadDump& b) {
  if (a.memory != b.memory || a.objects.size() != b.objects.size()) return false;
  if (a.coDescriptors.size() != b.coDescriptors.size()) return false;
  for (auto i = a.coDescriptors.begin(), j = b.coDescriptors.begin(); i != a.coDescriptors.end();
       ++i, ++j) {
    if (i->first != j->first || i->second.communicationEnabled != j->second.communicationEnabled) {
      return false;
    }
  }
  if (a.interfaceObjects.size() != b.interfaceObjects.size()) return false;
  for (auto i = a.interfaceObjects.begin(), j = b.interfaceObjects.begin();
       i != a.interfaceObjects.end(); ++i, ++j) {
    if (i->first != j->first || i->second.size() != j->second.size()) return false;
  }
  for (std::size_t o = 0; o < a.objects.size(); ++o) {
    if (a.objects[o]->GetPropertyCount() != b.objects[o]->GetPropertyCount()) return false;
    for (std::uint32_t id = 0; id < 256; ++id) {
      const auto* p = dynamic_cast<const KnxStack::Property*>(a.objects[o]->GetProperty(id));
      const auto* q = dynamic_cast<const KnxStack::Property*>(b.objects[o]->GetProperty(id));
      if ((p == nullptr) != (q == nullptr)) return false;
      if (p != nullptr &&
          (p->GetDataType() != q->GetDataType() || p->GetElements() != q->GetElements())) {
        return false;
      }
    }
  }
  return true;
}

void CheckDump(const DownloadDump& dump) {
  Check(dump.memory.GetSize() <= lkdh::host::kMaxMemorySize);
  // The map lists every owned object exactly once, and nothing else.
  std::set<const KnxStack::IInterfaceObject*> owned;
  for (const auto& object : dump.objects) {
    Check(object != nullptr);
    owned.insert(object.get());
  }
  Check(owned.size() == dump.objects.size());
  std::size_t listed = 0;
  for (const auto& entry : dump.interfaceObjects) {
    for (const auto* object : entry.second) {
      Check(owned.count(object) == 1);
      ++listed;
    }
  }
  Check(listed == dump.objects.size());

  for (const auto& object : dump.objects) {
    std::size_t found = 0;
    for (std::uint32_t id = 0; id < 256; ++id) {
      const KnxStack::IProperty* property = object->GetProperty(id);
      if (property == nullptr) continue;
      ++found;
      Check(property->GetId() == id);
      const auto* concrete = dynamic_cast<const KnxStack::Property*>(property);
      Check(concrete != nullptr);
      const std::uint32_t elementSize = property->GetElementSize();
      const std::size_t bytes = concrete->GetElements().GetSize();
      Check(elementSize == 0 || bytes % elementSize == 0);
      KnxStack::BinaryData value;
      if (property->Read(value)) Check(value == concrete->GetElements());
    }
    Check(found == object->GetPropertyCount());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::optional<DownloadDump> first;
  std::string firstError;
  try {
    first = lkdh::host::ParseDownloadDump(text);
    CheckDump(*first);
  } catch (const DumpError& error) {
    CheckError(error);
    firstError = FullText(error);
  }
  // Parsing depends on nothing but the text.
  try {
    const DownloadDump second = lkdh::host::ParseDownloadDump(text);
    Check(first.has_value() && Same(*first, second));
  } catch (const DumpError& error) {
    Check(!first.has_value() && FullText(error) == firstError);
  }
  return 0;
}
