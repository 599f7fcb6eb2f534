#include "qelibaselib/modulestatus/exception_sections.h"

#include <algorithm>
#include <span>

#include "qelibaselib/modulestatus/byte_dump.h"
#include "qelibaselib/modulestatus/code_dump.h"

namespace qel::report {
namespace {

struct NamedWord {
  const char* name;
  DWORD value;
};

void WriteIntegerRegisters(ReportStream& out, const CONTEXT& context) {
  const NamedWord registers[] = {
      {"Eax", context.Eax},     {"Ebx", context.Ebx},       {"Ecx", context.Ecx},     {"Edx", context.Edx},
      {"Esi", context.Esi},     {"Edi", context.Edi},       {"Eip", context.Eip},     {"Esp", context.Esp},
      {"Ebp", context.Ebp},     {"EFlags", context.EFlags}, {"SegCs", context.SegCs}, {"SegDs", context.SegDs},
      {"SegEs", context.SegEs}, {"SegSs", context.SegSs},   {"SegFs", context.SegFs}, {"SegGs", context.SegGs},
  };
  for (const auto& [name, value] : registers) out.Print("%-6s = 0x%08lx\n", name, value);
}

void WriteDebugRegisters(ReportStream& out, const CONTEXT& context) {
  const NamedWord registers[] = {
      {"ContextFlags", context.ContextFlags},
      {"Dr0", context.Dr0},
      {"Dr1", context.Dr1},
      {"Dr2", context.Dr2},
      {"Dr3", context.Dr3},
      {"Dr6", context.Dr6},
      {"Dr7", context.Dr7},
  };
  for (const auto& [name, value] : registers) out.Print("%s = 0x%08lx\n", name, value);
}

/// The compilers' headers disagree on the name of the last word; on Windows of today it reads Spare0.
DWORD LastWord(const auto& save) {
  if constexpr (requires { save.Cr0NpxState; }) {
    return save.Cr0NpxState;
  } else {
    return save.Spare0;
  }
}

void WriteFloatRegisters(ReportStream& out, const CONTEXT& context) {
  const auto& save = context.FloatSave;
  const NamedWord registers[] = {
      {"ControlWord", save.ControlWord},   {"StatusWord", save.StatusWord},       {"TagWord", save.TagWord},
      {"ErrorOffset", save.ErrorOffset},   {"ErrorSelector", save.ErrorSelector}, {"DataOffset", save.DataOffset},
      {"DataSelector", save.DataSelector}, {"Cr0NpxState", LastWord(save)},
  };
  for (const auto& [name, value] : registers) out.Print("FloatSave.%-13s = 0x%08lx\n", name, value);
}

void WriteArea(ReportStream& out, const char* name, std::span<const BYTE> bytes) {
  DumpLine line;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int position = static_cast<int>(i % kBytesPerLine);
    if (position == 0) {
      char start[40];
      FormatText(start, sizeof start, "%s[%3d] :", name, static_cast<int>(i));
      line.Append(start);
    }
    if (position == kBytesPerLine / 2) line.Append(" -");
    line.Append(" ");
    line.AppendByte(bytes[i]);
    if (position == kBytesPerLine - 1) line.PrintTo(out);
  }
  if (bytes.size() % kBytesPerLine != 0) line.PrintTo(out);
}

}  // namespace

void WriteRecord(ReportStream& out, const EXCEPTION_RECORD* record) {
  if (!record) {
    out.Print("EXCEPTION_RECORD not exist.\n");
    return;
  }
  out.Print("ExceptionCode    = 0x%08lx\n", record->ExceptionCode);
  out.Print("ExceptionFlags   = 0x%08lx\n", record->ExceptionFlags);
  out.Print("ExceptionRecord  = 0x%p\n", static_cast<void*>(record->ExceptionRecord));
  out.Print("ExceptionAddress = 0x%p\n", record->ExceptionAddress);
  out.Print("NumberParameters = 0x%08lx\n", record->NumberParameters);
  const DWORD parameters = std::min<DWORD>(record->NumberParameters, EXCEPTION_MAXIMUM_PARAMETERS);
  for (DWORD i = 0; i < parameters; ++i) {
    out.Print("ExceptionInformation[%d] = 0x%p\n", static_cast<int>(i),
              reinterpret_cast<void*>(record->ExceptionInformation[i]));
  }
}

void WriteContext(ReportStream& out, const CONTEXT* context) {
  if (!context) {
    out.Print("CONTEXT not exist.\n");
    return;
  }
  WriteIntegerRegisters(out, *context);
  WriteDebugRegisters(out, *context);
  WriteFloatRegisters(out, *context);
  WriteArea(out, "FloatSave.RegisterArea", context->FloatSave.RegisterArea);
  WriteArea(out, "ExtendedRegisters", context->ExtendedRegisters);
  DumpCode(out, context->Eip);
}

}  // namespace qel::report
