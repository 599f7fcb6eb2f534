#include "qelibaselib/platform/linux/modules/xz_decoder.h"

#include <algorithm>
#include <iterator>

#include "qelibaselib/platform/linux/modules/lzma_decoder.h"

namespace qel::layer {
namespace {

using PackedBytes = std::span<const uint8_t>;

constexpr uint8_t kMagic[] = {0xFD, '7', 'z', 'X', 'Z', 0};
constexpr std::size_t kStreamHeaderBytes = 12;
constexpr uint8_t kOneFilterMask = 0x3F;  // the flags of a block with one filter hold at most the two sizes
constexpr uint8_t kHasPackedSize = 0x40;
constexpr uint8_t kHasUnpackedSize = 0x80;
constexpr uint8_t kLzma2 = 0x21;
constexpr std::size_t kLargestOutput = 64 << 20;

enum Control : uint8_t {
  kEndOfChunks = 0x00,
  kCopyAfterReset = 0x01,
  kCopy = 0x02,
  kPacked = 0x80,  // plus the reset in two bits, plus the high bits of the size
  kResetMask = 0x60,
  kResetState = 0x20,
  kNewParameters = 0x40,
  kResetAll = 0x60,
  kSizeMask = 0x1F,
};

/// One chunk: its header taken apart.
struct PackedChunk {
  uint8_t control = kEndOfChunks;
  uint8_t parameters = 0;
  std::size_t unpackedBytes = 0;
  PackedBytes data;

  bool IsPacked() const { return control >= kPacked; }
  bool HasParameters() const { return IsPacked() && (control & kResetMask) >= kNewParameters; }
  bool ResetsDictionary() const {
    return control == kCopyAfterReset || (IsPacked() && (control & kResetMask) == kResetAll);
  }
};

std::size_t SizeAt(PackedBytes bytes, std::size_t offset) {
  return (std::size_t{bytes[offset]} << 8 | bytes[offset + 1]) + 1;
}

/// Takes the next chunk off the front. False when it is not whole.
bool TakeChunk(PackedBytes& rest, PackedChunk& chunk) {
  if (rest.empty()) return false;
  chunk = {};
  chunk.control = rest[0];
  if (chunk.control == kEndOfChunks) return true;
  if (chunk.control > kCopy && !chunk.IsPacked()) return false;
  const std::size_t headerBytes = !chunk.IsPacked() ? 3 : chunk.HasParameters() ? 6 : 5;
  if (rest.size() < headerBytes) return false;
  chunk.unpackedBytes = SizeAt(rest, 1);
  std::size_t dataBytes = chunk.unpackedBytes;
  if (chunk.IsPacked()) {
    chunk.unpackedBytes += std::size_t{uint8_t(chunk.control & kSizeMask)} << 16;
    dataBytes = SizeAt(rest, 3);
    if (chunk.HasParameters()) chunk.parameters = rest[5];
  }
  if (rest.size() - headerBytes < dataBytes) return false;
  chunk.data = rest.subspan(headerBytes, dataBytes);
  rest = rest.subspan(headerBytes + dataBytes);
  return true;
}

/// The chunks of the first block; empty when it is not packed by LZMA2 alone.
PackedBytes FindChunks(PackedBytes file) {
  if (file.size() < kStreamHeaderBytes + 1 || !std::equal(std::begin(kMagic), std::end(kMagic), file.begin()))
    return {};
  const PackedBytes block = file.subspan(kStreamHeaderBytes);
  const std::size_t headerBytes = (std::size_t{block[0]} + 1) * 4;
  if (block[0] == 0 || block.size() < headerBytes || (block[1] & kOneFilterMask) != 0) return {};
  std::size_t filter = 2;
  for (const uint8_t flag : {kHasPackedSize, kHasUnpackedSize}) {
    if ((block[1] & flag) == 0) continue;
    while (filter < headerBytes && (block[filter] & 0x80) != 0) ++filter;
    ++filter;
  }
  if (filter >= headerBytes || block[filter] != kLzma2) return {};
  return block.subspan(headerBytes);
}

/// 0 for chunks that are not whole.
std::size_t UnpackedSize(PackedBytes chunks) {
  std::size_t size = 0;
  PackedChunk chunk;
  do {
    if (!TakeChunk(chunks, chunk)) return 0;
    size += chunk.unpackedBytes;
  } while (chunk.control != kEndOfChunks && size <= kLargestOutput);
  return size <= kLargestOutput ? size : 0;
}

bool DecodeNext(LzmaDecoder& decoder, const PackedChunk& chunk) {
  if (chunk.ResetsDictionary()) decoder.ResetDictionary();
  if (!chunk.IsPacked()) return decoder.CopyChunk(chunk.data);
  if (chunk.HasParameters() && !decoder.SetParameters(chunk.parameters)) return false;
  if ((chunk.control & kResetMask) != 0) decoder.ResetState();
  return decoder.DecodeChunk(chunk.data, chunk.unpackedBytes);
}

bool DecodeChunks(PackedBytes chunks, LzmaDecoder& decoder) {
  PackedChunk chunk;
  while (TakeChunk(chunks, chunk)) {
    if (chunk.control == kEndOfChunks) return true;
    if (!DecodeNext(decoder, chunk)) return false;
  }
  return false;
}

}  // namespace

MappedPages DecodeXz(std::span<const uint8_t> packed, std::size_t& size) {
  const PackedBytes chunks = FindChunks(packed);
  size = UnpackedSize(chunks);
  const MappedPages room = MappedPages::Allocate(sizeof(LzmaDecoder));
  MappedPages output = size > 0 ? MappedPages::Allocate(size) : MappedPages();
  if (!room.data() || !output.data()) return {};
  auto* decoder = reinterpret_cast<LzmaDecoder*>(room.data());
  decoder->SetOutput({reinterpret_cast<uint8_t*>(output.data()), size});
  return DecodeChunks(chunks, *decoder) && decoder->position() == size ? std::move(output) : MappedPages();
}

}  // namespace qel::layer
