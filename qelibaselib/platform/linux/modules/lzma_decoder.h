/// @file
/// Unpacks the chunks of LZMA2.
#pragma once
#include <cstdint>
#include <span>

namespace qel::layer {

/// Lies on zeroed pages: it is too large for a small stack. Output of earlier chunks is what later ones refer to.
class LzmaDecoder {
 public:
  void SetOutput(std::span<uint8_t> output) { output_ = output; }
  std::size_t position() const { return position_; }

  void ResetDictionary() { dictionaryStart_ = position_; }
  void ResetState();
  /// The byte that holds the three parameters. False for one that LZMA2 does not allow.
  bool SetParameters(uint8_t parameters);
  /// False when the chunk is not sound.
  bool DecodeChunk(std::span<const uint8_t> packed, std::size_t unpackedBytes);
  bool CopyChunk(std::span<const uint8_t> bytes);

 private:
  using Probability = uint16_t;
  static constexpr uint32_t kStates = 12;
  static constexpr uint32_t kPositionStates = 16;

  struct LengthModel {
    Probability isLong, isVeryLong;
    Probability low[kPositionStates][8];
    Probability middle[kPositionStates][8];
    Probability high[256];
  };
  struct Model {
    Probability literal[0x300 << 4];
    Probability isMatch[kStates][kPositionStates];
    Probability isRepeat[kStates], isOther[kStates], isThird[kStates], isFourth[kStates];
    Probability isLongRepeat[kStates][kPositionStates];
    Probability slot[4][64];
    Probability nearDistance[115];
    Probability alignment[16];
    LengthModel length, repeatLength;
  };

  uint8_t TakeByte();
  void Normalize();
  uint32_t TakeBit(Probability& probability);
  uint32_t TakeDirect(uint32_t bits);
  uint32_t TakeTree(Probability* tree, uint32_t bits);
  uint32_t TakeReverseTree(Probability* tree, uint32_t bits);
  uint32_t TakeLength(LengthModel& model, uint32_t positionState);
  uint32_t TakeDistance(uint32_t length);

  void DecodeStep(std::size_t end);
  void DecodeLiteral();
  /// The length of a repeat of one of the last four distances; 0 for a single byte that it has copied.
  uint32_t DecodeRepeat(uint32_t positionState);
  uint32_t DecodeMatch(uint32_t positionState);
  void Copy(std::size_t length, std::size_t end);
  uint8_t ByteBefore(uint32_t distance) const;

  std::span<uint8_t> output_;
  std::size_t position_ = 0;
  std::size_t dictionaryStart_ = 0;

  std::span<const uint8_t> packed_;
  std::size_t taken_ = 0;
  bool failed_ = false;
  uint32_t range_ = 0;
  uint32_t code_ = 0;

  uint32_t literalContextBits_ = 0;
  uint32_t literalPositionMask_ = 0;
  uint32_t positionMask_ = 0;
  uint32_t state_ = 0;
  uint32_t distances_[4] = {};
  Model model_;
};

}  // namespace qel::layer
