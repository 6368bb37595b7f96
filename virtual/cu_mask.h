// Arithmetic on the 128-bit compute-unit mask and the 32-bit sets of virtual device ids and
// pipes: how a mask is cut into the words that files and the driver exchange, and how a
// member of a set is found. Pure functions, no state.
#ifndef ZOVDX_VIRTUAL_CU_MASK_H_
#define ZOVDX_VIRTUAL_CU_MASK_H_

#include <bitset>
#include <cstddef>
#include <cstdint>

// Bit i is compute unit i of the physical device.
typedef std::bitset<128> cu_mask_t;

inline constexpr size_t kCuMaskWord64Count = 2;  // files: bits 0-63, then 64-127
inline constexpr size_t kCuMaskWord32Count = 4;  // the driver: four 32-bit words

// Word index (0 = bits 0-63) of the mask. An index of 2 or more is 0.
inline uint64_t CuMaskWord64(const cu_mask_t& mask, size_t index) {
  if (index >= kCuMaskWord64Count) return 0;
  return ((mask >> (64 * index)) & cu_mask_t(UINT64_MAX)).to_ullong();
}

// value placed as word index of an otherwise empty mask; an index of 2 or more places
// nothing (the bits fall off the top).
inline cu_mask_t CuMaskFromWord64(uint64_t value, size_t index) {
  if (index >= kCuMaskWord64Count) return cu_mask_t();
  return cu_mask_t(value) << (64 * index);
}

// Bit n of the mask becomes bit n % 32 of words[n / 32].
inline void CuMaskToWords32(const cu_mask_t& mask, uint32_t words[kCuMaskWord32Count]) {
  for (size_t w = 0; w < kCuMaskWord32Count; ++w) {
    words[w] = static_cast<uint32_t>(((mask >> (32 * w)) & cu_mask_t(UINT32_MAX)).to_ulong());
  }
}

// The bit of a virtual device id or pipe in a 32-bit set: only the low five bits of the
// number count, so any int names a bit.
inline uint32_t IdBit(int id) { return 1u << (static_cast<unsigned>(id) & 31u); }

// Lowest set bit of a non-empty 32-bit set, or -1 for an empty one.
inline int LowestIdBit(uint32_t set) { return set == 0 ? -1 : __builtin_ctz(set); }

#endif  // ZOVDX_VIRTUAL_CU_MASK_H_
