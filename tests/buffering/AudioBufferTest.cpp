#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"
#include "vexcore/MemoryRecycler.h"

namespace {

using dsp::AudioBuffer;
using dsp::AudioBufferChannel;
using dsp::AudioBufferShell;
using dsp::AudioSubBuffer;
using Mask = AudioBuffer::ChannelMask;

// Exposes the protected alignment state of a sub-buffer.
class ProbeSubBuffer : public AudioSubBuffer {
 public:
  using AudioBuffer::GetAlignment;
  using AudioBuffer::IsAlignedUse;
};

void Fill(AudioBuffer& b, std::uint32_t ch, const std::vector<float>& v) {
  std::copy(v.begin(), v.begin() + std::min<std::size_t>(v.size(), b.GetBufferSize()), b[ch]);
}
void FillValue(AudioBuffer& b, std::uint32_t ch, float value) { std::fill(b[ch], b[ch] + b.GetBufferSize(), value); }
std::vector<float> Read(const AudioBuffer& b, std::uint32_t ch, std::size_t n) {
  return std::vector<float>(b[ch], b[ch] + n);
}
std::vector<float> Slice(const std::vector<float>& v, std::size_t from, std::size_t n) {
  return std::vector<float>(v.begin() + from, v.begin() + from + n);
}
// A noise-filled buffer whose channels differ.
void FillNoise(AudioBuffer& b, std::uint32_t seed) {
  for (std::uint32_t ch = 0; ch < b.GetNumChannels(); ++ch) Fill(b, ch, vextest::Noise(b.GetBufferSize(), seed + ch));
}

TEST(AudioBufferStorage, InitReusesTheBlockWhileItFits) {
  AudioBuffer b;
  EXPECT_EQ(b.GetNumChannels(), 0u);
  EXPECT_TRUE(b.IsZero());
  b.Init(2, 887);
  EXPECT_FALSE(b.IsChannelZero(0));
  EXPECT_FALSE(b.IsChannelZero(1));
  EXPECT_EQ(b.GetChannelZeroMask(), ~Mask::LowBits(2));
  EXPECT_EQ(b.GetBufferSize(), 887u);
  float** table = b.GetFloatBuffers();

  b.Init(1, 960);  // 2 x (887 + 20) floats + 16 bytes = 7272 bytes hold (7272 - 8) / 4 - 20 = 1796 samples
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 1796u);
  EXPECT_EQ(b.GetUseSize(), 960u);
  FillValue(b, 0, 3.0f);
  b.ZeroBuffers();
  EXPECT_EQ(Read(b, 0, 960), std::vector<float>(960, 0.0f));
  EXPECT_FALSE(b.IsChannelZero(0));  // ZeroBuffers leaves the mask alone

  b.SetChannelZero(0);
  b.Init(2, 887);
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_TRUE(b.IsChannelZero(0));  // flags below the channel count survive
  b.Init(2, 100);                   // same channel count: capacity never shrinks
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_EQ(b.GetUseSize(), 100u);
  EXPECT_NO_ALLOCATION(b.Init(2, 887));
  EXPECT_NO_ALLOCATION(b.Init(1, 1500));

  b.Init(3, 5000);
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 5000u);

  AudioBuffer empty(2, 0);
  EXPECT_EQ(empty.GetNumChannels(), 0u);
  EXPECT_EQ(empty.GetFloatBuffers(), nullptr);
  EXPECT_EQ(empty[0], nullptr);
}

TEST(AudioBufferStorage, RecyclerHandsBackTheSameSizeClass) {
  { AudioBuffer warm(2, 4096); }
  const auto before = vexcore::utility::MemoryRecycler::GetStats();
  AudioBuffer again(2, 4096);
  const auto after = vexcore::utility::MemoryRecycler::GetStats();
  EXPECT_EQ(after.heapAllocations, before.heapAllocations);
  EXPECT_EQ(after.reuses, before.reuses + 1);
}

TEST(AudioBufferStorage, ChannelsAre64ByteAlignedAndDisjoint) {
  for (std::uint32_t channels : {1u, 2u, 3u, 5u, 70u}) {
    for (std::uint32_t size : {1u, 3u, 887u, 1000u}) {
      AudioBuffer b(channels, size);
      for (std::uint32_t ch = 0; ch < channels; ++ch) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b[ch]) % 64, 0u) << channels << "x" << size;
        if (ch + 1 < channels) {
          EXPECT_GE(b[ch + 1], b[ch] + size + 4);
        }
        FillValue(b, ch, static_cast<float>(ch));
      }
      for (std::uint32_t ch = 0; ch < channels; ++ch) {
        EXPECT_EQ(Read(b, ch, size), std::vector<float>(size, static_cast<float>(ch)));
      }
    }
  }
  AudioBuffer b(2, 887);
  b.Init(1, 960);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b[0]) % 64, 0u);
}

TEST(AudioBufferStorage, CopyConstructorCopiesEverySampleAndTheMask) {
  AudioBuffer src(2, 100);
  FillNoise(src, 1);
  src.SetChannelZero(1);
  src.SetUseSize(60);
  AudioBuffer copy(src);
  EXPECT_EQ(copy.GetNumChannels(), 2u);
  EXPECT_EQ(copy.GetUseSize(), 60u);
  EXPECT_EQ(copy.GetChannelZeroMask(), src.GetChannelZeroMask());
  EXPECT_EQ(Read(copy, 1, 60), Read(src, 1, 60));  // flagged or not
  EXPECT_EQ(Read(copy, 0, 60), Read(src, 0, 60));
}

TEST(AudioBufferStorage, SetUseSizeWithinCapacityAndGrowing) {
  AudioBuffer b(2, 100);
  FillNoise(b, 5);
  const auto left = Read(b, 0, 100);
  float** table = b.GetFloatBuffers();
  float* ch0 = b[0];
  EXPECT_NO_ALLOCATION(b.SetUseSize(50));
  EXPECT_EQ(b.GetUseSize(), 50u);
  b.SetUseSize(100);
  EXPECT_EQ(b[0], ch0);

  b.SetChannelZero(1);
  b.SetUseSize(5000);
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 5000u);
  EXPECT_EQ(b.GetUseSize(), 5000u);
  EXPECT_EQ(Read(b, 0, 100), left);
  EXPECT_FALSE(b.IsChannelZero(0));
  EXPECT_TRUE(b.IsChannelZero(1));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b[1]) % 64, 0u);

  b.Zero();
  b.ClearChannelsZero(~Mask::LowBits(2));  // only the bits above the channels
  b.SetUseSize(9000);
  EXPECT_EQ(b.GetChannelZeroMask(), Mask::AllOnes());

  b.SetUseSize(0);  // from use size 0 the call only caps at the capacity
  b.SetUseSize(20000);
  EXPECT_EQ(b.GetUseSize(), 9000u);
  EXPECT_EQ(b.GetBufferSize(), 9000u);
}

TEST(AudioBufferFlags, MaskRules) {
  AudioBuffer b(3, 16);
  EXPECT_FALSE(b.IsZero());
  b.SetChannelZero(0);
  b.SetChannelZero(2);
  EXPECT_FALSE(b.IsZero());
  b.SetChannelsZero(Mask(0b010));
  EXPECT_TRUE(b.IsZero());
  b.ClearZero();
  EXPECT_EQ(b.GetChannelZeroMask(), ~Mask::LowBits(3));
  b.ClearChannelsZero(Mask::AllOnes());
  EXPECT_EQ(b.GetChannelZeroMask(), Mask(0));
  b.SetChannelsZero(Mask(0b111));
  EXPECT_TRUE(b.IsZero());  // only the channels' own bits count
  b.ClearChannelZero(1);
  EXPECT_FALSE(b.IsZero());
  EXPECT_TRUE(b.IsChannelZero(64));  // bit 0
  EXPECT_FALSE(b.IsChannelZero(65));

  AudioBuffer wide(70, 8);
  EXPECT_EQ(wide.GetChannelZeroMask(), Mask(0));
  wide.SetChannelZero(65);  // no flag of its own
  EXPECT_EQ(wide.GetChannelZeroMask(), Mask(0));
  wide.SetChannelZero(1);
  EXPECT_TRUE(wide.IsChannelZero(65));
  wide.ClearChannelZero(1);
  wide.SetChannelsZero(Mask::LowBits(63));
  EXPECT_FALSE(wide.IsZero());
  wide.SetChannelZero(63);
  EXPECT_TRUE(wide.IsZero());
  wide.ClearZero();
  EXPECT_EQ(wide.GetChannelZeroMask(), Mask(0));
}

class AudioBufferOps : public ::testing::Test {
 protected:
  void SetUp() override {
    FillNoise(src_, 10);
    for (std::uint32_t ch = 0; ch < 2; ++ch) FillValue(dst_, ch, 9.0f);
    a_ = Read(src_, 0, 64);
    b_ = Read(src_, 1, 64);
  }
  AudioBuffer src_{2, 64};
  AudioBuffer dst_{2, 64};
  std::vector<float> a_, b_;
  const std::vector<float> stale_ = std::vector<float>(64, 9.0f);
  const std::vector<float> zeros_ = std::vector<float>(64, 0.0f);
};

TEST_F(AudioBufferOps, CopyFromFollowsTheSourceFlags) {
  src_.SetChannelZero(1);
  EXPECT_NO_ALLOCATION(dst_.CopyFrom(src_));
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_FALSE(dst_.IsChannelZero(0));
  EXPECT_TRUE(dst_.IsChannelZero(1));
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);

  // A shorter source copies its use size only; a partial silence leaves the flag clear.
  AudioBuffer fresh(2, 64);
  FillValue(fresh, 0, 9.0f);
  FillValue(fresh, 1, 9.0f);
  src_.SetUseSize(40);
  fresh.CopyFrom(src_);
  EXPECT_EQ(Read(fresh, 0, 40), Slice(a_, 0, 40));
  EXPECT_EQ(Slice(Read(fresh, 0, 64), 40, 24), Slice(stale_, 0, 24));
  EXPECT_EQ(Read(fresh, 1, 40), Slice(zeros_, 0, 40));
  EXPECT_EQ(fresh[1][40], 9.0f);
  EXPECT_FALSE(fresh.IsChannelZero(1));

  src_.Zero();
  dst_.ClearZero();
  dst_.CopyFrom(src_);
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
  EXPECT_EQ(Read(dst_, 0, 64), zeros_);
}

TEST_F(AudioBufferOps, CountedAndSelectiveCopies) {
  dst_.CopyFrom(src_, 10);
  EXPECT_EQ(Read(dst_, 0, 10), Slice(a_, 0, 10));
  EXPECT_EQ(dst_[0][10], 9.0f);
  AudioBuffer other(2, 64);
  FillValue(other, 1, 9.0f);
  other.CopyFrom(src_, 12345, 10);  // the first count is not used
  EXPECT_EQ(Read(other, 1, 10), Slice(b_, 0, 10));
  EXPECT_EQ(other[1][10], 9.0f);
  dst_.CopyFrom(src_, 1000);  // capped at the use size
  EXPECT_EQ(Read(dst_, 1, 64), b_);

  // The counted form has no all-silent shortcut: a partial count leaves flags clear.
  AudioBuffer silent(2, 64);
  silent.Zero();
  FillValue(dst_, 0, 9.0f);
  dst_.CopyFrom(silent, 10);
  EXPECT_EQ(Read(dst_, 0, 10), Slice(zeros_, 0, 10));
  EXPECT_EQ(dst_[0][10], 9.0f);
  EXPECT_FALSE(dst_.IsChannelZero(0));

  AudioBuffer three(3, 64);
  FillValue(three, 2, 9.0f);
  three.CopyFrom(src_);
  EXPECT_EQ(Read(three, 2, 64), zeros_);
  EXPECT_TRUE(three.IsChannelZero(2));

  FillValue(dst_, 1, 9.0f);
  dst_.ClearZero();
  EXPECT_NO_ALLOCATION(dst_.CopyCertainChannelsFrom(src_, 64, Mask(0b01)));
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);
  EXPECT_TRUE(dst_.IsChannelZero(1));
}

TEST_F(AudioBufferOps, CopyFromScale) {
  EXPECT_NO_ALLOCATION(dst_.CopyFromScale(src_, -0.3f));
  for (std::size_t i = 0; i < 64; ++i) {
    EXPECT_EQ(dst_[0][i], a_[i] * -0.3f);
    EXPECT_EQ(dst_[1][i], b_[i] * -0.3f);
  }
  dst_.CopyFromScale(src_, 1.0f);
  EXPECT_EQ(Read(dst_, 1, 64), b_);
  dst_.CopyFromScale(src_, 0.0f);
  EXPECT_EQ(Read(dst_, 0, 64), zeros_);
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
  src_.SetChannelZero(0);
  dst_.CopyFromScale(src_, 2.0f);
  EXPECT_TRUE(dst_.IsChannelZero(0));
  EXPECT_FALSE(dst_.IsChannelZero(1));
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[1][i], 2.0f * b_[i]);
}

TEST_F(AudioBufferOps, CopyChannel) {
  AudioBuffer b(3, 64);
  FillNoise(b, 20);
  const auto c0 = Read(b, 0, 64);
  const auto c1 = Read(b, 1, 64);
  b.SetChannelZero(2);
  EXPECT_NO_ALLOCATION(b.CopyChannel(0, 2));
  EXPECT_EQ(Read(b, 2, 64), c0);
  EXPECT_FALSE(b.IsChannelZero(2));
  b.CopyChannel(0, 7);  // out of range: nothing
  EXPECT_EQ(Read(b, 1, 64), c1);
  b.CopyChannel(5, 1);  // invalid source silences
  EXPECT_EQ(Read(b, 1, 64), zeros_);
  EXPECT_TRUE(b.IsChannelZero(1));

  src_.SetChannelZero(1);
  b.CopyChannel(src_, 0, 1);
  EXPECT_EQ(Read(b, 1, 64), a_);
  EXPECT_FALSE(b.IsChannelZero(1));
  b.CopyChannel(src_, 1, 0);
  EXPECT_EQ(Read(b, 0, 64), zeros_);
  EXPECT_TRUE(b.IsChannelZero(0));
}

TEST_F(AudioBufferOps, Mix) {
  dst_.Zero();
  src_.SetChannelZero(1);
  EXPECT_NO_ALLOCATION(dst_.Mix(src_));  // into silence: a copy
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_TRUE(dst_.IsChannelZero(1));
  src_.ClearZero();

  AudioBuffer half(2, 64), other(2, 64);
  for (std::uint32_t ch = 0; ch < 2; ++ch) {
    FillValue(half, ch, 0.5f);
    FillValue(other, ch, 0.5f);
  }
  half.Mix(other);
  EXPECT_EQ(Read(half, 1, 64), std::vector<float>(64, 1.0f));

  // A flagged destination channel is overwritten, not added to its stale samples.
  Fill(dst_, 0, vextest::Noise(64, 99));
  const auto d0 = Read(dst_, 0, 64);
  FillValue(dst_, 1, 9.0f);
  dst_.ClearChannelZero(0);
  dst_.SetChannelZero(1);
  dst_.Mix(src_);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[0][i], d0[i] + a_[i]);
  EXPECT_EQ(Read(dst_, 1, 64), b_);
  EXPECT_FALSE(dst_.IsChannelZero(1));

  // Flagged source channels and silent sources leave the destination alone.
  const auto before0 = Read(dst_, 0, 64);
  src_.SetChannelZero(0);
  dst_.Mix(src_);
  EXPECT_EQ(Read(dst_, 0, 64), before0);
  src_.SetChannelZero(1);
  const auto before1 = Read(dst_, 1, 64);
  dst_.Mix(src_);
  EXPECT_EQ(Read(dst_, 1, 64), before1);
}

TEST_F(AudioBufferOps, GainReverseAndZeroing) {
  src_.SetChannelZero(1);
  const Mask mask = src_.GetChannelZeroMask();
  FillValue(src_, 1, 9.0f);
  EXPECT_NO_ALLOCATION(src_ *= 0.25f);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(src_[0][i], a_[i] * 0.25f);
  EXPECT_EQ(Read(src_, 1, 64), stale_);  // flagged: not touched
  src_ *= 0.0f;
  EXPECT_EQ(src_.GetChannelZeroMask(), mask);
  EXPECT_EQ(Read(src_, 0, 64), zeros_);

  for (std::uint32_t use : {7u, 8u}) {
    AudioBuffer r(2, 16);
    FillNoise(r, 30);
    const auto orig = Read(r, 0, 16);
    r.SetChannelZero(1);
    const auto stale = Read(r, 1, 16);
    r.SetUseSize(use);
    EXPECT_NO_ALLOCATION(r.Reverse());
    for (std::uint32_t i = 0; i < use; ++i) EXPECT_EQ(r[0][i], orig[use - 1 - i]);
    EXPECT_EQ(r[0][use], orig[use]);
    EXPECT_EQ(Read(r, 1, 16), stale);
  }

  EXPECT_NO_ALLOCATION(dst_.ZeroChannel(0, 10));
  EXPECT_EQ(Read(dst_, 0, 10), Slice(zeros_, 0, 10));
  EXPECT_EQ(dst_[0][10], 9.0f);
  EXPECT_FALSE(dst_.IsChannelZero(0));
  dst_.ZeroChannel(0, 64);
  EXPECT_TRUE(dst_.IsChannelZero(0));
  dst_.ZeroChannel(9, 64);
  FillValue(dst_, 1, 9.0f);
  EXPECT_NO_ALLOCATION(dst_.Zero());
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());

  const auto ptrs = dst_.GetBuffersAsFloats(3);
  ASSERT_EQ(ptrs.size(), 2u);
  EXPECT_EQ(ptrs[1], dst_[1] + 3);
  EXPECT_EQ(dst_.GetBuffersAsVoid(0)[0], static_cast<void*>(dst_.GetFloatBuffers()[0]));
}

TEST(AudioBufferWide, MoreThan64ChannelsCopyMixAndScale) {
  AudioBuffer a(70, 32), b(70, 32);
  FillNoise(a, 40);
  b.CopyFrom(a);
  for (std::uint32_t ch = 0; ch < 70; ++ch) ASSERT_EQ(Read(b, ch, 32), Read(a, ch, 32)) << ch;
  b.Mix(a);
  for (std::uint32_t ch = 0; ch < 70; ++ch) {
    for (std::uint32_t i = 0; i < 32; ++i) ASSERT_EQ(b[ch][i], 2.0f * a[ch][i]);
  }
  b *= 0.5f;
  for (std::uint32_t ch = 0; ch < 70; ++ch) ASSERT_EQ(Read(b, ch, 32), Read(a, ch, 32)) << ch;
  b.Zero();
  EXPECT_TRUE(b.IsZero());
  EXPECT_EQ(Read(b, 63, 32), std::vector<float>(32, 0.0f));
}

TEST(AudioBufferChannelView, ForwardsFlagsToTheParentChannel) {
  AudioBuffer parent(2, 64);
  FillNoise(parent, 50);
  parent.SetChannelZero(1);
  AudioBufferChannel view;
  EXPECT_TRUE(view.IsZero());
  EXPECT_NO_ALLOCATION(view.Assign(parent, 1));
  EXPECT_EQ(view.GetNumChannels(), 1u);
  EXPECT_EQ(view.GetBufferSize(), parent.GetBufferSize());
  EXPECT_EQ(view.GetUseSize(), parent.GetUseSize());
  EXPECT_EQ(view[0], parent[1]);
  EXPECT_EQ(view.GetChannelZeroMask(), parent.GetChannelZeroMask());
  EXPECT_EQ(view.IsZero(), parent.IsChannelZero(1));
  EXPECT_TRUE(view.IsChannelZero(0));
  parent.ClearChannelZero(1);
  EXPECT_EQ(view.IsZero(), parent.IsChannelZero(1));
  EXPECT_FALSE(view.IsChannelZero(7));  // the argument is ignored

  view.SetChannelZero(0);
  EXPECT_TRUE(parent.IsChannelZero(1));
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_EQ(view.GetChannelZeroMask(), parent.GetChannelZeroMask());
  view.ClearChannelZero(5);
  EXPECT_FALSE(parent.IsChannelZero(1));
  view.SetChannelZero(0);
  view.ClearZero();
  EXPECT_FALSE(parent.IsChannelZero(1));
  EXPECT_FALSE(view.GetChannelZeroMask().IsSet(0));
  view.SetChannelsZero(Mask(0b01));  // the mask forms pass the flags through as given
  EXPECT_TRUE(parent.IsChannelZero(0));
  view.ClearChannelsZero(Mask(0b01));
  EXPECT_FALSE(parent.IsChannelZero(0));

  AudioBufferChannel copy(view);
  EXPECT_EQ(copy[0], parent[1]);
  EXPECT_EQ(copy.GetParent(), &parent);
  EXPECT_EQ(copy.GetParentChannel(), 1u);
  EXPECT_EQ(copy.GetBufferSize(), parent.GetBufferSize());
  EXPECT_EQ(copy.GetChannelZeroMask(), parent.GetChannelZeroMask());

  view.Assign(parent, 2);
  EXPECT_EQ(view.GetNumChannels(), 0u);
  EXPECT_EQ(view.GetBufferSize(), 0u);
  EXPECT_EQ(view.GetParent(), nullptr);
  EXPECT_EQ(view.GetChannelZeroMask(), Mask::AllOnes());
  EXPECT_TRUE(view.IsZero());
}

TEST(AudioBufferChannelView, OperationsWriteThroughToTheParent) {
  AudioBuffer parent(2, 64);
  FillNoise(parent, 60);
  const auto left = Read(parent, 0, 64);
  parent.SetChannelZero(1);
  AudioBuffer mono(1, 64);
  FillNoise(mono, 61);
  AudioBufferChannel view;
  view.Assign(parent, 1);

  EXPECT_NO_ALLOCATION(view.CopyFrom(mono));
  EXPECT_EQ(Read(parent, 1, 64), Read(mono, 0, 64));
  EXPECT_FALSE(parent.IsChannelZero(1));
  view *= 2.0f;
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(parent[1][i], 2.0f * mono[0][i]);
  view.Zero();
  EXPECT_EQ(Read(parent, 1, 64), std::vector<float>(64, 0.0f));
  EXPECT_TRUE(parent.IsChannelZero(1));
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_EQ(Read(parent, 0, 64), left);
}

TEST(AudioSubBufferView, SizesAndNesting) {
  AudioBuffer parent(2, 1024);
  FillNoise(parent, 70);
  parent.SetChannelZero(1);
  AudioSubBuffer sub;
  sub.Init(2);
  EXPECT_NO_ALLOCATION(sub.Assign(parent, 0));
  EXPECT_EQ(sub.GetBufferSize(), 1024u);
  sub.Assign(parent, 512);
  EXPECT_EQ(sub.GetBufferSize(), 512u);
  EXPECT_EQ(sub.GetUseSize(), 512u);
  EXPECT_EQ(sub[1], parent[1] + 512);
  sub.Assign(parent, 1024);
  EXPECT_EQ(sub.GetBufferSize(), 0u);
  EXPECT_EQ(sub.GetUseSize(), 0u);

  AudioSubBuffer wide;
  wide.Init(3);
  wide.Assign(parent, 0);  // more channels than the parent: ignored
  EXPECT_EQ(wide.GetParent(), nullptr);
  EXPECT_EQ(wide.GetBufferSize(), 0u);

  AudioSubBuffer half, quarter;
  half.Init(2);
  quarter.Init(2);
  half.Assign(parent, 512);
  quarter.Assign(half, 256);
  EXPECT_EQ(quarter.GetBufferSize(), 256u);
  for (std::uint32_t ch = 0; ch < 2; ++ch) EXPECT_EQ(Read(quarter, ch, 256), Slice(Read(parent, ch, 1024), 768, 256));
  EXPECT_EQ(half.GetChannelZeroMask(), parent.GetChannelZeroMask());
  EXPECT_EQ(quarter.GetChannelZeroMask(), parent.GetChannelZeroMask());
  EXPECT_EQ(quarter.GetParent(), &half);
}

TEST(AudioSubBufferView, ClearingAFlagZeroesTheParentOutsideTheView) {
  AudioBuffer parent(1, 1024);
  FillValue(parent, 0, 7.0f);  // stale samples under a set flag
  parent.SetChannelZero(0);
  AudioSubBuffer sub;
  sub.Init(1);
  sub.Assign(parent, 256);
  sub.SetUseSize(256);
  EXPECT_TRUE(sub.IsChannelZero(0));
  std::fill(sub[0], sub[0] + 256, 0.25f);
  EXPECT_NO_ALLOCATION(sub.ClearChannelZero(0));
  const auto p = Read(parent, 0, 1024);
  EXPECT_EQ(Slice(p, 0, 256), std::vector<float>(256, 0.0f));
  EXPECT_EQ(Slice(p, 256, 256), std::vector<float>(256, 0.25f));
  EXPECT_EQ(Slice(p, 512, 512), std::vector<float>(512, 0.0f));
  EXPECT_FALSE(parent.IsChannelZero(0));

  // Two levels deep the grandparent is cleaned as well.
  FillValue(parent, 0, 7.0f);
  parent.SetChannelZero(0);
  AudioSubBuffer half, inner;
  half.Init(1);
  inner.Init(1);
  half.Assign(parent, 512);
  inner.Assign(half, 128);
  inner.SetUseSize(64);
  std::fill(inner[0], inner[0] + 64, 0.5f);
  inner.ClearZero();
  const auto q = Read(parent, 0, 1024);
  for (std::size_t i = 0; i < 1024; ++i) ASSERT_EQ(q[i], (i >= 640 && i < 704) ? 0.5f : 0.0f) << i;
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_FALSE(half.IsChannelZero(0));
}

TEST(AudioSubBufferView, FlagOverrides) {
  AudioBuffer parent(2, 256);
  FillNoise(parent, 80);
  const auto left = Read(parent, 0, 256);
  AudioSubBuffer sub;
  sub.Init(2);
  sub.Assign(parent, 0);  // equal use sizes: flags reach the parent
  sub.SetChannelZero(1);
  EXPECT_TRUE(parent.IsChannelZero(1));
  sub.Zero();  // flags only
  EXPECT_TRUE(parent.IsChannelZero(0));
  EXPECT_EQ(Read(parent, 0, 256), left);
  parent.ClearZero();

  sub.Assign(parent, 100);  // different use sizes: own flags only
  EXPECT_NO_ALLOCATION(sub.SetChannelZero(0));
  EXPECT_FALSE(parent.IsChannelZero(0));
  sub.ZeroChannel(1, 3);
  EXPECT_TRUE(sub.IsChannelZero(1));
  EXPECT_EQ(Read(parent, 0, 256), left);
  sub.SetChannelsZero(Mask(0b01));  // assigns rather than ORs
  EXPECT_EQ(sub.GetChannelZeroMask(), Mask(0b01));
  sub.ClearChannelsZero(Mask(0b01));  // names the channels that carry sound
  EXPECT_FALSE(sub.IsChannelZero(0));
  EXPECT_TRUE(sub.IsChannelZero(1));
  sub.ClearChannelsZero(Mask(0));
  EXPECT_EQ(sub.GetChannelZeroMask(), Mask::AllOnes());
  sub.ClearZero();
  EXPECT_FALSE(sub.IsZero());
}

TEST(AudioSubBufferView, ShiftOffsetWalksAcrossTheParent) {
  for (std::uint32_t block : {128u, 7u}) {
    AudioBuffer parent(2, 1000);
    FillNoise(parent, 90);
    const auto orig0 = Read(parent, 0, 1000);
    const auto orig1 = Read(parent, 1, 1000);
    ProbeSubBuffer sub;
    sub.Init(2);
    sub.Assign(parent, 0);
    sub.SetUseSize(block);
    std::uint32_t offset = 0;
    float gain = 1.0f;
    while (sub.GetBufferSize() > 0) {
      ASSERT_EQ(sub[0], parent[0] + offset);
      ASSERT_EQ(sub.GetUseSize(), std::min(block, 1000 - offset));
      if (offset > 0) {
        EXPECT_EQ(sub.GetAlignment(), offset % 4 == 0 ? 4 : 1);
        EXPECT_EQ(sub.IsAlignedUse(), offset % 4 == 0);
      }
      sub *= gain;
      gain += 1.0f;
      EXPECT_NO_ALLOCATION(sub.ShiftOffset(block));
      offset += block;
      sub.SetUseSize(block);
    }
    EXPECT_EQ(sub.GetUseSize(), 0u);
    for (std::uint32_t i = 0; i < 1000; ++i) {
      const float g = static_cast<float>(i / block + 1);
      ASSERT_EQ(parent[0][i], orig0[i] * g) << i;
      ASSERT_EQ(parent[1][i], orig1[i] * g) << i;
    }
  }
}

TEST(AudioSubBufferView, ShiftOffsetShrinksBothSizes) {
  AudioBuffer parent(1, 1000);
  parent.SetUseSize(500);
  AudioSubBuffer sub;
  sub.Init(1);
  sub.Assign(parent, 0);
  sub.ShiftOffset(100);
  EXPECT_EQ(sub.GetBufferSize(), 900u);
  EXPECT_EQ(sub.GetUseSize(), 400u);
  sub.ShiftOffset(600);  // past the use size: nothing valid left, room remains
  EXPECT_EQ(sub.GetBufferSize(), 300u);
  EXPECT_EQ(sub.GetUseSize(), 0u);
  EXPECT_EQ(sub[0], parent[0] + 700);
  sub.ShiftOffset(300);
  EXPECT_EQ(sub.GetBufferSize(), 0u);
}

TEST(AudioSubBufferView, AlignmentFollowsTheFirstPointer) {
  AudioBuffer parent(1, 1024);
  ProbeSubBuffer sub;
  sub.Init(1);
  sub.Assign(parent, 0);
  EXPECT_EQ(sub.GetAlignment(), 4);
  EXPECT_TRUE(sub.IsAlignedUse());
  sub.Assign(parent, 3);
  EXPECT_EQ(sub.GetAlignment(), 1);
  EXPECT_FALSE(sub.IsAlignedUse());
  parent.SetUseSize(1023);
  sub.Assign(parent, 8);  // aligned pointer, use size 1015
  EXPECT_EQ(sub.GetAlignment(), 4);
  EXPECT_FALSE(sub.IsAlignedUse());
}

TEST(AudioSubBufferView, WrappedUseSizeNeverWritesPastTheParent) {
  std::vector<float> host(1000, 7.0f);
  for (std::size_t i = 0; i < 600; ++i) host[i] = static_cast<float>(i);
  float* ptrs[1] = {host.data()};
  AudioBufferShell shell;
  shell.Init(1);
  shell.Assign(ptrs, 600);
  shell.SetUseSize(300);
  AudioSubBuffer sub;
  sub.Init(1);
  sub.Assign(shell, 500);
  EXPECT_EQ(sub.GetBufferSize(), 100u);
  EXPECT_EQ(sub.GetUseSize(), static_cast<std::uint32_t>(300u - 500u));  // wraps on purpose

  AudioBuffer loud(1, 1000);
  FillValue(loud, 0, 3.0f);
  AudioBuffer& base = sub;
  base.Zero();
  EXPECT_EQ(host[599], 0.0f);
  sub.ClearZero();
  base.CopyFrom(loud);
  EXPECT_EQ(host[500], 3.0f);
  base.Mix(loud);
  base *= 2.0f;
  EXPECT_EQ(host[599], 12.0f);
  base.Reverse();
  base.ZeroChannel(0, 5000);
  base.CopyChannel(loud, 0, 0);
  base.ZeroBuffers();
  for (std::size_t i = 0; i < 500; ++i) ASSERT_EQ(host[i], static_cast<float>(i));
  for (std::size_t i = 600; i < 1000; ++i) ASSERT_EQ(host[i], 7.0f) << i;
}

TEST(AudioBufferShellView, WrapsHostMemory) {
  vextest::PlanarBlock host(2, 256);
  host.Channel(0) = vextest::Noise(256, 100);
  host.Channel(1) = vextest::Noise(256, 101);
  const auto ref = host.Channel(0);
  float* ptrs[2] = {host.Channel(0).data(), host.Channel(1).data()};
  AudioBufferShell shell;
  shell.Init(2);
  EXPECT_NO_ALLOCATION(shell.Assign(ptrs, 256));
  EXPECT_EQ(shell[1], host.Channel(1).data());
  EXPECT_EQ(shell.GetBufferSize(), 256u);
  EXPECT_EQ(shell.GetUseSize(), 256u);
  EXPECT_FALSE(shell.IsChannelZero(0));
  EXPECT_FALSE(shell.IsChannelZero(1));
  EXPECT_EQ(shell.GetChannelZeroMask(), ~Mask::LowBits(2));

  shell *= 0.5f;
  for (std::size_t i = 0; i < 256; ++i) ASSERT_EQ(host.Channel(0)[i], ref[i] * 0.5f);
  shell.SetUseSize(1000);  // views never allocate samples: capped at the capacity
  EXPECT_EQ(shell.GetUseSize(), 256u);
  EXPECT_EQ(shell[0], host.Channel(0).data());
  shell.Zero();
  EXPECT_EQ(host.Channel(1), std::vector<float>(256, 0.0f));
  EXPECT_TRUE(shell.IsZero());
  shell.Assign(nullptr, 10);  // ignored
  EXPECT_EQ(shell.GetBufferSize(), 256u);

  float* offset[2] = {ptrs[0] + 1, ptrs[1] + 1};  // unaligned host pointers
  shell.Assign(offset, 255);
  EXPECT_FALSE(shell.IsZero());
  AudioBuffer src(2, 255);
  FillNoise(src, 102);
  shell.CopyFrom(src);
  EXPECT_EQ(std::vector<float>(host.Channel(1).begin() + 1, host.Channel(1).end()), Read(src, 1, 255));
  EXPECT_EQ(host.Channel(1)[0], 0.0f);
}

}  // namespace
