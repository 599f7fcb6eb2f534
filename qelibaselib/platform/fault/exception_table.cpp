#include "qelibaselib/platform/fault/exception_table.h"

#include <cstdint>
#include <cstring>

namespace fault {
namespace {

/// Reads the numbers of a table one after the other.
class TableReader {
 public:
  explicit TableReader(const uint8_t* position) : position_(position) {}
  const uint8_t* position() const { return position_; }
  uint8_t Byte() { return *position_++; }
  uintptr_t Uleb128() {
    uintptr_t value = 0;
    uint8_t byte;
    unsigned int shift = 0;
    do {
      byte = Byte();
      value |= static_cast<uintptr_t>(byte & 0x7F) << shift;
      shift += 7;
    } while (byte & 0x80);
    return value;
  }
  uintptr_t Encoded(uint8_t encoding) {
    switch (encoding & 0x0F) {
      case kUleb128:
        return Uleb128();
      case kUdata2:
        return Fixed<uint16_t>();
      default:
        return Fixed<uint32_t>();
    }
  }
  static constexpr uint8_t kOmitted = 0xFF;

 private:
  static constexpr uint8_t kUleb128 = 1, kUdata2 = 2;
  template <class Value>
  Value Fixed() {
    Value value;
    std::memcpy(&value, position_, sizeof value);
    position_ += sizeof value;
    return value;
  }
  const uint8_t* position_;
};

// Where the frame goes on, counted from its function. A return address stands behind its call.
uintptr_t OffsetInFunction(_Unwind_Context* context) {
  int beforeInstruction = 0;
  uintptr_t instruction = _Unwind_GetIPInfo(context, &beforeInstruction);
  if (!beforeInstruction) --instruction;
  return instruction - _Unwind_GetRegionStart(context);
}

// Reads what stands before the call sites; returns their encoding.
uint8_t SkipHeader(TableReader& reader) {
  const uint8_t landingPadEncoding = reader.Byte();
  if (landingPadEncoding != TableReader::kOmitted) reader.Encoded(landingPadEncoding);
  const uint8_t typeEncoding = reader.Byte();
  if (typeEncoding != TableReader::kOmitted) reader.Uleb128();
  return reader.Byte();
}

}  // namespace

bool MayPass(_Unwind_Context* context) {
  const auto* table = static_cast<const uint8_t*>(_Unwind_GetLanguageSpecificData(context));
  if (!table) return true;
  const uintptr_t offset = OffsetInFunction(context);
  TableReader reader(table);
  const uint8_t encoding = SkipHeader(reader);
  const uintptr_t callSiteBytes = reader.Uleb128();
  const uint8_t* const end = reader.position() + callSiteBytes;
  while (reader.position() < end) {
    const uintptr_t start = reader.Encoded(encoding);
    const uintptr_t length = reader.Encoded(encoding);
    reader.Encoded(encoding);  // landing pad
    reader.Uleb128();          // action
    if (offset < start) return false;
    if (offset < start + length) return true;
  }
  return false;
}

}  // namespace fault
