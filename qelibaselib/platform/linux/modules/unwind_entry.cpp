#include "qelibaselib/platform/linux/modules/unwind_entry.h"

#include "qelibaselib/platform/linux/modules/table_cursor.h"

namespace qel::layer {
namespace {

constexpr uint32_t kWordBytes = 4;
constexpr uint32_t kRowBytes = 8;
constexpr uint8_t kHeaderVersion = 1;
constexpr uint32_t kLongForm = 0xFFFFFFFF;  // a record of more than 4 GB
constexpr uint32_t kLongestRecord = 1 << 20;
constexpr uint8_t kOldVersion = 1;  // its return column is one byte
constexpr int kLongestAugmentation = 8;

/// A row of the search table: the start of a function and its entry, both counted from the header.
struct SearchRow {
  uint32_t start, entry;
};

/// Finds the last row that starts at or before the address.
bool FindRow(const WalkMemory& memory, uint32_t rows, uint32_t count, uint32_t header, uint32_t address,
             SearchRow& found) {
  bool isFound = false;
  for (uint32_t low = 0, high = count; low < high;) {
    const uint32_t middle = low + (high - low) / 2;
    SearchRow row;
    if (!memory.Read(rows + middle * kRowBytes, &row, sizeof row)) return false;
    row.start += header;
    row.entry += header;
    if (row.start <= address) {
      found = row;
      isFound = true;
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return isFound;
}

bool FindEntryAddress(const WalkMemory& memory, const UnwindTables& tables, uint32_t address, uint32_t& entry) {
  TableCursor cursor(memory, tables.header, tables.headerEnd);
  const uint8_t version = cursor.TakeByte();
  const uint8_t sectionEncoding = cursor.TakeByte();
  const uint8_t countEncoding = cursor.TakeByte();
  const uint8_t tableEncoding = cursor.TakeByte();
  if (version != kHeaderVersion || tableEncoding != kSearchTable) return false;
  cursor.TakePointer(sectionEncoding, tables.header);
  const uint32_t count = cursor.TakePointer(countEncoding, tables.header);
  if (!cursor.IsSound() || count > (cursor.end() - cursor.position()) / kRowBytes) return false;
  SearchRow row;
  if (!FindRow(memory, cursor.position(), count, tables.header, address, row)) return false;
  entry = row.entry;
  return true;
}

/// Reads the length that a record begins with. The range is what follows it.
bool FindRecord(const WalkMemory& memory, uint32_t address, ProgramRange& record) {
  uint32_t length;
  if (!memory.ReadWord(address, length) || length < kWordBytes || length == kLongForm || length > kLongestRecord)
    return false;
  record = {address + kWordBytes, address + kWordBytes + length};
  return record.end > record.begin;
}

/// Reads what the letters of a record's augmentation announce, one after the other.
void ReadAugmentation(TableCursor& cursor, const char* letters, UnwindEntry& entry) {
  for (; *letters; ++letters) {
    switch (*letters) {
      case 'R':
        entry.pointerEncoding = cursor.TakeByte();
        break;
      case 'L':
        cursor.TakeByte();
        break;
      case 'P':  // the function that looks for handlers; only its size matters
        cursor.TakePointer(cursor.TakeByte() & kFormatMask);
        break;
      case 'S':
        entry.isSignalFrame = true;
        break;
      default:  // unknown ones are skipped with the rest
        return;
    }
  }
}

/// Reads the record that several entries share.
bool ReadSharedRecord(const WalkMemory& memory, uint32_t address, UnwindEntry& entry) {
  ProgramRange record;
  if (!FindRecord(memory, address, record)) return false;
  TableCursor cursor(memory, record.begin, record.end);
  const uint32_t id = cursor.TakeWord();
  const uint8_t version = cursor.TakeByte();
  char augmentation[kLongestAugmentation];
  int length = 0;
  while (length < kLongestAugmentation && (augmentation[length] = static_cast<char>(cursor.TakeByte())) != '\0')
    ++length;
  if (id != 0 || length == kLongestAugmentation || (length > 0 && augmentation[0] != 'z')) return false;
  entry.codeFactor = cursor.TakeUnsigned();
  entry.dataFactor = cursor.TakeSigned();
  entry.returnColumn = version == kOldVersion ? cursor.TakeByte() : cursor.TakeUnsigned();
  uint32_t program = cursor.position();
  entry.isAugmented = length > 0;
  if (entry.isAugmented) {
    const uint32_t bytes = cursor.TakeUnsigned();
    program = cursor.position() + bytes;
    ReadAugmentation(cursor, augmentation + 1, entry);
    cursor.GoTo(program);
  }
  entry.sharedProgram = {program, record.end};
  return cursor.IsSound();
}

bool ReadEntry(const WalkMemory& memory, uint32_t address, UnwindEntry& entry) {
  ProgramRange record;
  if (!FindRecord(memory, address, record)) return false;
  TableCursor cursor(memory, record.begin, record.end);
  const uint32_t distance = cursor.TakeWord();  // back to the shared record; 0 marks such a one itself
  if (distance == 0 || !ReadSharedRecord(memory, record.begin - distance, entry)) return false;
  entry.codeStart = cursor.TakePointer(entry.pointerEncoding);
  entry.codeEnd = entry.codeStart + cursor.TakePointer(entry.pointerEncoding & kFormatMask);
  if (entry.isAugmented) cursor.Skip(cursor.TakeUnsigned());
  entry.program = {cursor.position(), record.end};
  return cursor.IsSound();
}

}  // namespace

bool FindUnwindEntry(const WalkMemory& memory, const UnwindTables& tables, uint32_t address, UnwindEntry& entry) {
  uint32_t place;
  return FindEntryAddress(memory, tables, address, place) && ReadEntry(memory, place, entry) &&
         address >= entry.codeStart && address < entry.codeEnd;
}

}  // namespace qel::layer
