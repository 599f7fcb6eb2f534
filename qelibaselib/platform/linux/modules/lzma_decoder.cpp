// LZMA codes bits by ranges: each bit has a model of how probable 0 is, which learns. A literal byte is eight bits in
// the context of the byte before; a match is a length and a distance back, which may be one of the last four. What
// happened last is the state, 0 to 11; below 7 it was a literal.
#include "qelibaselib/platform/linux/modules/lzma_decoder.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace qel::layer {
namespace {

constexpr uint32_t kProbabilityBits = 11;
constexpr uint16_t kEven = 1 << (kProbabilityBits - 1);
constexpr uint32_t kLearningShift = 5;
constexpr uint32_t kLowestRange = 1 << 24;
constexpr uint32_t kFirstBehindLiteral = 7;
constexpr uint32_t kShortestMatch = 2;
constexpr uint32_t kLiteralModels = 0x300;
constexpr uint32_t kFirstModelledSlot = 4;
constexpr uint32_t kFirstDirectSlot = 14;
constexpr uint32_t kAlignmentBits = 4;

uint32_t AfterLiteral(uint32_t state) { return state < 4 ? 0 : state < 10 ? state - 3 : state - 6; }

}  // namespace

void LzmaDecoder::ResetState() {
  state_ = 0;
  std::fill(std::begin(distances_), std::end(distances_), 0);
  auto* first = reinterpret_cast<Probability*>(&model_);
  std::fill(first, first + sizeof model_ / sizeof(Probability), kEven);
}

bool LzmaDecoder::SetParameters(uint8_t parameters) {
  const uint32_t context = parameters % 9, position = parameters / 9 % 5, positionStates = parameters / 45;
  if (positionStates > 4 || context + position > 4) return false;
  literalContextBits_ = context;
  literalPositionMask_ = (1u << position) - 1;
  positionMask_ = (1u << positionStates) - 1;
  return true;
}

bool LzmaDecoder::CopyChunk(std::span<const uint8_t> bytes) {
  if (bytes.size() > output_.size() - position_) return false;
  std::memcpy(output_.data() + position_, bytes.data(), bytes.size());
  position_ += bytes.size();
  return true;
}

bool LzmaDecoder::DecodeChunk(std::span<const uint8_t> packed, std::size_t unpackedBytes) {
  if (unpackedBytes > output_.size() - position_) return false;
  packed_ = packed;
  taken_ = 0;
  failed_ = TakeByte() != 0;
  range_ = 0xFFFFFFFF;
  code_ = 0;
  for (int i = 0; i < 4; ++i) code_ = code_ << 8 | TakeByte();
  const std::size_t end = position_ + unpackedBytes;
  while (position_ < end && !failed_) DecodeStep(end);
  return !failed_;
}

uint8_t LzmaDecoder::TakeByte() {
  if (taken_ == packed_.size()) {
    failed_ = true;
    return 0;
  }
  return packed_[taken_++];
}

void LzmaDecoder::Normalize() {
  if (range_ >= kLowestRange) return;
  range_ <<= 8;
  code_ = code_ << 8 | TakeByte();
}

uint32_t LzmaDecoder::TakeBit(Probability& probability) {
  Normalize();
  const uint32_t bound = (range_ >> kProbabilityBits) * probability;
  if (code_ < bound) {
    range_ = bound;
    probability = static_cast<Probability>(probability + (((1u << kProbabilityBits) - probability) >> kLearningShift));
    return 0;
  }
  range_ -= bound;
  code_ -= bound;
  probability = static_cast<Probability>(probability - (probability >> kLearningShift));
  return 1;
}

uint32_t LzmaDecoder::TakeDirect(uint32_t bits) {
  uint32_t value = 0;
  for (; bits > 0; --bits) {
    Normalize();
    range_ >>= 1;
    const bool isOne = code_ >= range_;
    if (isOne) code_ -= range_;
    value = value << 1 | (isOne ? 1 : 0);
  }
  return value;
}

uint32_t LzmaDecoder::TakeTree(Probability* tree, uint32_t bits) {
  uint32_t node = 1;
  for (uint32_t i = 0; i < bits; ++i) node = node << 1 | TakeBit(tree[node]);
  return node - (1u << bits);
}

uint32_t LzmaDecoder::TakeReverseTree(Probability* tree, uint32_t bits) {
  uint32_t node = 1, value = 0;
  for (uint32_t i = 0; i < bits; ++i) {
    const uint32_t bit = TakeBit(tree[node]);
    node = node << 1 | bit;
    value |= bit << i;
  }
  return value;
}

uint32_t LzmaDecoder::TakeLength(LengthModel& model, uint32_t positionState) {
  if (TakeBit(model.isLong) == 0) return TakeTree(model.low[positionState], 3);
  if (TakeBit(model.isVeryLong) == 0) return 8 + TakeTree(model.middle[positionState], 3);
  return 16 + TakeTree(model.high, 8);
}

uint32_t LzmaDecoder::TakeDistance(uint32_t length) {
  const uint32_t slot = TakeTree(model_.slot[std::min<uint32_t>(length, 3)], 6);
  if (slot < kFirstModelledSlot) return slot;
  const uint32_t bits = (slot >> 1) - 1;
  const uint32_t base = (2 | (slot & 1)) << bits;
  if (slot < kFirstDirectSlot) return base + TakeReverseTree(model_.nearDistance + base - slot, bits);
  const uint32_t direct = TakeDirect(bits - kAlignmentBits) << kAlignmentBits;
  return base + direct + TakeReverseTree(model_.alignment, kAlignmentBits);
}

uint8_t LzmaDecoder::ByteBefore(uint32_t distance) const {
  return distance < position_ - dictionaryStart_ ? output_[position_ - distance - 1] : 0;
}

void LzmaDecoder::DecodeStep(std::size_t end) {
  const auto positionState = static_cast<uint32_t>(position_ - dictionaryStart_) & positionMask_;
  if (TakeBit(model_.isMatch[state_][positionState]) == 0) return DecodeLiteral();
  const uint32_t length =
      TakeBit(model_.isRepeat[state_]) != 0 ? DecodeRepeat(positionState) : DecodeMatch(positionState);
  if (length != 0) Copy(length, end);
}

void LzmaDecoder::DecodeLiteral() {
  const auto position = static_cast<uint32_t>(position_ - dictionaryStart_) & literalPositionMask_;
  const uint32_t context = (position << literalContextBits_) + (ByteBefore(0) >> (8 - literalContextBits_));
  Probability* models = model_.literal + kLiteralModels * context;
  uint32_t symbol = 1;
  if (state_ >= kFirstBehindLiteral) {
    // Behind a match the byte differs from the one that would have continued it; that one is a context too.
    for (uint32_t expected = ByteBefore(distances_[0]); symbol < 0x100; expected <<= 1) {
      const uint32_t expectedBit = expected >> 7 & 1;
      const uint32_t bit = TakeBit(models[((1 + expectedBit) << 8) + symbol]);
      symbol = symbol << 1 | bit;
      if (bit != expectedBit) break;
    }
  }
  while (symbol < 0x100) symbol = symbol << 1 | TakeBit(models[symbol]);
  output_[position_++] = static_cast<uint8_t>(symbol);
  state_ = AfterLiteral(state_);
}

uint32_t LzmaDecoder::DecodeRepeat(uint32_t positionState) {
  if (TakeBit(model_.isOther[state_]) == 0) {
    if (TakeBit(model_.isLongRepeat[state_][positionState]) == 0) {
      state_ = state_ < kFirstBehindLiteral ? 9 : 11;
      Copy(1, position_ + 1);
      return 0;
    }
  } else {
    const uint32_t which = TakeBit(model_.isThird[state_]) == 0 ? 1 : TakeBit(model_.isFourth[state_]) == 0 ? 2 : 3;
    std::rotate(distances_, distances_ + which, distances_ + which + 1);
  }
  const uint32_t length = TakeLength(model_.repeatLength, positionState) + kShortestMatch;
  state_ = state_ < kFirstBehindLiteral ? 8 : 11;
  return length;
}

uint32_t LzmaDecoder::DecodeMatch(uint32_t positionState) {
  const uint32_t length = TakeLength(model_.length, positionState);
  state_ = state_ < kFirstBehindLiteral ? 7 : 10;
  std::rotate(distances_, distances_ + 3, distances_ + 4);
  distances_[0] = TakeDistance(length);
  return length + kShortestMatch;
}

void LzmaDecoder::Copy(std::size_t length, std::size_t end) {
  if (distances_[0] >= position_ - dictionaryStart_ || length > end - position_) {
    failed_ = true;
    return;
  }
  for (; length > 0; --length, ++position_) output_[position_] = output_[position_ - distances_[0] - 1];
}

}  // namespace qel::layer
