#include "test/modulestatus/report_reader.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "test/support/scratch_folder.h"

namespace qel::test {
namespace {

constexpr char kTime[] = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})";
const std::string kHex8 = "([0-9a-f]{8})";
const std::string kPointer = "([0-9A-F]{8})";

unsigned long FromHex(const std::string& digits) { return std::stoul(digits, nullptr, 16); }

std::vector<int> ReadBytes(const std::string& text) {
  std::vector<int> bytes;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (word != "-") bytes.push_back(word == "??" ? -1 : std::stoi(word, nullptr, 16));
  }
  return bytes;
}

// "byte byte byte byte - byte ..." with a blank behind every byte, sixteen at most.
std::string DumpBytes(const std::string& byte) { return "(?:" + byte + " ){0,4}(?:- (?:" + byte + " ){0,4}){0,3}"; }

DumpLine ToDumpLine(const std::vector<std::string>& groups) {
  return {FromHex(groups[1]), !groups[0].empty(), ReadBytes(groups[2])};
}

std::vector<int> ReadArea(ReportReader& reader, const std::string& name, int size) {
  std::vector<int> bytes;
  for (int index = 0; index < size; index += 16) {
    char start[24];
    std::snprintf(start, sizeof start, "\\[%3d\\] :", index);
    const auto groups = reader.Match(name + start + "((?: [0-9a-f]{2}){8} -(?: [0-9a-f]{2}){8})");
    if (groups.empty()) break;
    const auto line = ReadBytes(groups[0]);
    bytes.insert(bytes.end(), line.begin(), line.end());
  }
  return bytes;
}

void ReadNamedWord(ReportReader& reader, std::map<std::string, unsigned long>& words, const std::string& name,
                   const std::string& shown, const std::string& value = kHex8) {
  const auto groups = reader.Match(shown + " = 0x" + value);
  if (!groups.empty()) words[name] = FromHex(groups[0]);
}

void ReadRecord(ReportReader& reader, ExceptionReport& report) {
  report.hasRecord = reader.MatchIf("EXCEPTION_RECORD not exist\\.").empty();
  if (!report.hasRecord) return;
  ReadNamedWord(reader, report.record, "ExceptionCode", "ExceptionCode   ");
  ReadNamedWord(reader, report.record, "ExceptionFlags", "ExceptionFlags  ");
  ReadNamedWord(reader, report.record, "ExceptionRecord", "ExceptionRecord ", kPointer);
  ReadNamedWord(reader, report.record, "ExceptionAddress", "ExceptionAddress", kPointer);
  ReadNamedWord(reader, report.record, "NumberParameters", "NumberParameters");
  for (;;) {
    const std::string index = std::to_string(report.parameters.size());
    const auto groups = reader.MatchIf("ExceptionInformation\\[" + index + "\\] = 0x" + kPointer);
    if (groups.empty()) break;
    report.parameters.push_back(FromHex(groups[0]));
  }
}

void ReadContext(ReportReader& reader, ExceptionReport& report) {
  report.hasContext = reader.MatchIf("CONTEXT not exist\\.").empty();
  if (!report.hasContext) return;
  for (const char* name : {"Eax   ",       "Ebx   ", "Ecx   ", "Edx   ", "Esi   ", "Edi   ", "Eip   ", "Esp   ",
                           "Ebp   ",       "EFlags", "SegCs ", "SegDs ", "SegEs ", "SegSs ", "SegFs ", "SegGs ",
                           "ContextFlags", "Dr0",    "Dr1",    "Dr2",    "Dr3",    "Dr6",    "Dr7"}) {
    ReadNamedWord(reader, report.registers, std::string(name).substr(0, std::string(name).find(' ')), name);
  }
  for (const char* name : {"ControlWord  ", "StatusWord   ", "TagWord      ", "ErrorOffset  ", "ErrorSelector",
                           "DataOffset   ", "DataSelector ", "Cr0NpxState  "}) {
    ReadNamedWord(reader, report.registers, std::string(name).substr(0, std::string(name).find(' ')),
                  std::string("FloatSave\\.") + name);
  }
  report.floatArea = ReadArea(reader, "FloatSave\\.RegisterArea", 80);
  report.extendedArea = ReadArea(reader, "ExtendedRegisters", 512);

  reader.Expect("");
  reader.Expect("======================= Machine Code Dump ==============================================");
  for (int i = 0; i < 40; ++i) {
    const auto groups = reader.Match("(>?)" + kPointer + "    (" + DumpBytes("(?:[0-9a-f]{2}|\\?\\?)") + ")");
    if (groups.empty()) break;
    report.code.push_back(ToDumpLine(groups));
    EXPECT_EQ(report.code.back().bytes.size(), 16u);
  }
}

void ReadSystemInformation(ReportReader& reader) {
  reader.Expect("");
  reader.Expect("======================= System Status (GetSystemInfo) =======================");
  reader.Expect("dwPageSize                  = 4096");
  reader.Expect("lpMinimumApplicationAddress = 00010000(H)");
  reader.Expect("lpMaximumApplicationAddress = 7ffeffff(H)");
  reader.Match("dwActiveProcessorMask       = [0-9a-f]{8}\\(H\\)");
  reader.Match("dwNumberOfProcessors        = \\d+");
  reader.Match("dwProcessorType             = \\d+");
  reader.Expect("dwAllocationGranularity     = 00010000(H)");
  reader.Match("wProcessorLevel             = [0-9a-f]{4}\\(H\\)");
  reader.Match("wProcessorRevision          = [0-9a-f]{4}\\(H\\)");
}

void ReadAddressSpace(ReportReader& reader, StatusReport& report) {
  reader.Expect("");
  reader.Expect("===================== Virtual Memory Status =====================");
  for (;;) {
    if (auto free = reader.MatchIf(kHex8 + " - " + kHex8 + " \\( ([ \\d]{6}) MBytes \\) : MEM_FREE"); !free.empty()) {
      report.freeRegions.push_back({FromHex(free[0]), FromHex(free[1])});
      EXPECT_EQ(std::stoul(free[2]), (report.freeRegions.back().end - report.freeRegions.back().start) >> 20);
    } else if (auto module = reader.MatchIf(kHex8 + " - " + kHex8 + " \\( " + kHex8 + " \\) : ([^/\\\\]+)");
               !module.empty()) {
      report.modules.push_back(module[3]);
    } else {
      break;
    }
  }
  // Code page 932: free space, in regions of 16 MB and more, of 32 MB and more, largest region.
  const char* const labels[] = {
      "\x8B\xF3\x82\xAB\x97\x65\x97\xCA         ", "16MB\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA ",
      "32MB\x88\xC8\x8F\xE3\x8B\xF3\x82\xAB\x97\x65\x97\xCA ", "\x98\x41\x91\xB1\x8B\xF3\x82\xAB\x97\x65\x97\xCA     "};
  for (int i = 0; i < 4; ++i) {
    const auto sum = reader.Match(std::string(labels[i]) + "= {1,11}(\\d+) Bytes \\( {1,6}(\\d+) MBytes \\)");
    if (sum.empty()) continue;
    report.freeBytes[i] = std::stoul(sum[0]);
    EXPECT_EQ(std::stoul(sum[1]), report.freeBytes[i] >> 20);
  }
}

void ReadGlobalMemory(ReportReader& reader, StatusReport& report) {
  reader.Expect("");
  reader.Expect("================ Global Memory Status (GlobalMemoryStatusEx) ================");
  reader.Match("dwMemoryLoad             = \\d{1,3}");
  for (const char* name : {"ullTotalPhys             ", "ullAvailPhys             ", "ullTotalPageFile         ",
                           "ullAvailPageFile         ", "ullTotalVirtual          ", "ullAvailVirtual          ",
                           "ullAvailExtendedVirtual  "}) {
    const auto bytes = reader.Match(std::string(name) + "= ([ \\d]{11,}) Bytes \\( ([ \\d]{6,}) MBytes \\)");
    if (bytes.empty()) continue;
    const std::string key = std::string(name).substr(0, std::string(name).find(' '));
    report.memory[key] = std::stoull(bytes[0]);
    EXPECT_EQ(std::stoull(bytes[1]), report.memory[key] >> 20);
  }
}

}  // namespace

ReportReader::ReportReader(const std::string& text) {
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.ends_with('\r')) line.pop_back();
    lines_.push_back(line);
  }
}

void ReportReader::Expect(const std::string& line) {
  ASSERT_LT(next_, lines_.size()) << "instead of " << line;
  EXPECT_EQ(lines_[next_], line) << "line " << next_ + 1;
  ++next_;
}

std::vector<std::string> ReportReader::Match(const std::string& expression) {
  auto groups = MatchIf(expression);
  if (groups.empty()) {
    ADD_FAILURE() << "line " << next_ + 1 << " is '" << (AtEnd() ? "" : lines_[next_]) << "', not " << expression;
    next_ = std::min(next_ + 1, lines_.size());
  }
  return groups;
}

std::vector<std::string> ReportReader::MatchIf(const std::string& expression) {
  std::smatch match;
  if (AtEnd() || !std::regex_match(lines_[next_], match, std::regex(expression))) return {};
  ++next_;
  // Never empty, so that a match without groups is told from none.
  std::vector<std::string> groups;
  for (size_t i = 1; i < match.size(); ++i) groups.push_back(match[i]);
  groups.push_back(match[0]);
  return groups;
}

StatusReport ReadStatusReport(ReportReader& reader) {
  StatusReport report{};
  reader.Expect("");
  reader.Expect("#####");
  reader.Expect("#####");
  reader.Match(std::string("##### ") + kTime);
  report.title = reader.Match("##### (.*)").front();
  report.processId = std::stoul(reader.Match("##### ProcessId\\(\\)=(\\d+)").front());
  report.program = reader.Match("##### ExePath  : (.*)").front();
  report.logPath = reader.Match("##### LogPath  : (.*)").front();
  report.tempPath = reader.Match("##### TempPath : (.*)").front();
  report.dataPath = reader.Match("##### DataPath : (.*)").front();
  report.threads = std::stoi(reader.Match("##### OmpNum   : (\\d+)").front());
  reader.Expect("##### OmpNum   : " + std::to_string(report.threads));
  reader.Match("##### WSS      : \\d+, \\d+");
  reader.Expect("#####");
  reader.Expect("");
  reader.Expect("================ OS Version ================");
  reader.Match("MajorVersion=\\d+");
  reader.Match("MinorVersion=\\d+");
  reader.Match("BuildNumber=\\d+");
  reader.Expect("PlatformId=2");
  reader.Match("CSDVersion=.*");
  ReadAddressSpace(reader, report);
  ReadSystemInformation(reader);
  ReadGlobalMemory(reader, report);
  reader.Expect("");
  reader.Expect("================ Disk Free Space ================");
  for (;;) {
    const auto disk = reader.MatchIf(
        "[^#>=]*\\(\\d\\) : (?:FreeBytesAvailable=\\d+, TotalNumberOfBytes=\\d+, TotalNumberOfFreeBytes=\\d+"
        "|Drive not ready\\(0x[0-9a-f]+\\))");
    if (disk.empty()) break;
    report.disks.push_back(disk.back());
  }
  return report;
}

void ReadStackWalk(ReportReader& reader, std::vector<Frame>& frames, std::vector<DumpLine>& stack) {
  reader.Expect("");
  reader.Expect("======================= Stack Walk ==============================================");
  for (;;) {
    const auto frame = reader.MatchIf("0x" + kHex8 + "(?: (.*)\\(\\) \\+ 0x([0-9a-f]+))?");
    if (frame.empty()) break;
    frames.push_back({FromHex(frame[0]), frame[1], frame[2].empty() ? 0 : FromHex(frame[2])});
  }
  reader.Expect("======================= Raw Stack Dump ==============================================");
  while (stack.size() < 64) {
    const auto line = reader.MatchIf("()" + kPointer + "    (" + DumpBytes("[0-9a-f]{2}") + ")");
    if (line.empty()) break;
    stack.push_back(ToDumpLine(line));
  }
}

ExceptionReport ReadExceptionReport(ReportReader& reader) {
  ExceptionReport report{};
  const std::string separator(87, '>');
  reader.Expect("");
  reader.Expect(separator);
  reader.Expect(separator);
  reader.Match(std::string(">>>>>>>>>> ") + kTime);
  report.title = reader.Match(">>>>>>>>>> (.*)").front();
  report.program = reader.Match(">>>>>>>>>> (.*)").front();
  if (const auto ids = reader.Match(">>>>>>>>>> TC=(\\d+), ProcessId\\(\\)=(\\d+), ThreadId\\(\\)=(\\d+)");
      !ids.empty()) {
    report.count = std::stoul(ids[0]);
    report.processId = std::stoul(ids[1]);
    report.threadId = std::stoul(ids[2]);
  }
  reader.Expect(separator);
  reader.Expect(separator);
  reader.Expect("======================= File Information ==============================================");
  report.source = reader.Match("(.*)").front();
  reader.Expect("======================= Exception Information(EXCEPTION_RECORD) =======================");
  reader.Expect("processID=" + std::to_string(report.processId) + ", threadId=" + std::to_string(report.threadId) +
                ", omp_get_thread_num=0");
  ReadRecord(reader, report);
  reader.Expect("======================= Exception Information(CONTEXT) ================================");
  ReadContext(reader, report);
  if (report.hasContext) {
    ReadStackWalk(reader, report.frames, report.stack);
  } else {
    reader.Expect("");
    reader.Expect("======================= Stack Walk ==============================================");
    reader.Expect("Context not exist(122)");
  }
  report.status = ReadStatusReport(reader);
  return report;
}

std::string WrittenBy(const std::function<void(std::FILE* stream)>& write) {
  const ScratchFolder folder;
  const std::string path = (folder.Path() / "report").string();
  std::FILE* stream = std::fopen(path.c_str(), "wb");
  if (!stream) return {};
  write(stream);
  std::fclose(stream);
  return ReadWholeFile(path);
}

}  // namespace qel::test
