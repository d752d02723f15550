#pragma once

#include <cstdint>
#include <cstring>

// KVRSCAN_NO_SIMD builds the scalar form on any processor (a test does).
#if !defined(KVRSCAN_NO_SIMD) && \
    (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2))
#define KVRSCAN_PAIR_SSE2 1
#include <emmintrin.h>
#else
#define KVRSCAN_PAIR_SSE2 0
#endif

namespace kvrscan {

// Two doubles computed side by side: in one SSE2 register where the processor
// has them (every x86-64), as two scalars elsewhere. Each lane is rounded
// exactly as the same scalar expression would be, so the results do not depend
// on which is used.
#if KVRSCAN_PAIR_SSE2
struct DoublePair {
  __m128d v;

  static DoublePair of(double first, double second) { return {_mm_set_pd(second, first)}; }
  static DoublePair all(double x) { return {_mm_set1_pd(x)}; }
  static DoublePair load(const double* p) { return {_mm_loadu_pd(p)}; }
  static DoublePair fromInts(const std::int32_t* p) {
    return {_mm_cvtepi32_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)))};
  }
  // (a[0], b[0]) and (a[1], b[1]) from a = (a[0], a[1]), b = (b[0], b[1]).
  static void transpose(DoublePair a, DoublePair b, DoublePair& firsts, DoublePair& seconds) {
    firsts = {_mm_unpacklo_pd(a.v, b.v)};
    seconds = {_mm_unpackhi_pd(a.v, b.v)};
  }

  friend DoublePair operator+(DoublePair a, DoublePair b) { return {_mm_add_pd(a.v, b.v)}; }
  friend DoublePair operator-(DoublePair a, DoublePair b) { return {_mm_sub_pd(a.v, b.v)}; }
  friend DoublePair operator*(DoublePair a, DoublePair b) { return {_mm_mul_pd(a.v, b.v)}; }
  friend DoublePair operator/(DoublePair a, DoublePair b) { return {_mm_div_pd(a.v, b.v)}; }

  // This pair where `test` is above zero, 0 elsewhere (also where this is NaN).
  DoublePair whereAboveZero(DoublePair test) const {
    return {_mm_and_pd(_mm_cmpgt_pd(test.v, _mm_setzero_pd()), v)};
  }

  void store(double* p) const { _mm_storeu_pd(p, v); }
  // Two 16-byte rows (x, y, z rounded to float as static_cast<float> rounds,
  // then the word from `words`), one for each lane, at `first` and `second`.
  static void storeRows(DoublePair x, DoublePair y, DoublePair z, const std::uint32_t* words, unsigned char* first,
                        unsigned char* second) {
    const __m128 xy = _mm_unpacklo_ps(_mm_cvtpd_ps(x.v), _mm_cvtpd_ps(y.v));  // x0 y0 x1 y1
    const __m128 zw = _mm_unpacklo_ps(
        _mm_cvtpd_ps(z.v), _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(words))));
    _mm_storeu_ps(reinterpret_cast<float*>(first), _mm_movelh_ps(xy, zw));
    _mm_storeu_ps(reinterpret_cast<float*>(second), _mm_movehl_ps(zw, xy));
  }
};
#else
struct DoublePair {
  double a, b;

  static DoublePair of(double first, double second) { return {first, second}; }
  static DoublePair all(double x) { return {x, x}; }
  static DoublePair load(const double* p) { return {p[0], p[1]}; }
  static DoublePair fromInts(const std::int32_t* p) { return {static_cast<double>(p[0]), static_cast<double>(p[1])}; }
  static void transpose(DoublePair x, DoublePair y, DoublePair& firsts, DoublePair& seconds) {
    firsts = {x.a, y.a};
    seconds = {x.b, y.b};
  }

  friend DoublePair operator+(DoublePair x, DoublePair y) { return {x.a + y.a, x.b + y.b}; }
  friend DoublePair operator-(DoublePair x, DoublePair y) { return {x.a - y.a, x.b - y.b}; }
  friend DoublePair operator*(DoublePair x, DoublePair y) { return {x.a * y.a, x.b * y.b}; }
  friend DoublePair operator/(DoublePair x, DoublePair y) { return {x.a / y.a, x.b / y.b}; }

  DoublePair whereAboveZero(DoublePair test) const { return {test.a > 0.0 ? a : 0.0, test.b > 0.0 ? b : 0.0}; }

  void store(double* p) const { p[0] = a, p[1] = b; }
  static void storeRows(DoublePair x, DoublePair y, DoublePair z, const std::uint32_t* words, unsigned char* first,
                        unsigned char* second) {
    const float a[3] = {static_cast<float>(x.a), static_cast<float>(y.a), static_cast<float>(z.a)};
    const float b[3] = {static_cast<float>(x.b), static_cast<float>(y.b), static_cast<float>(z.b)};
    std::memcpy(first, a, 12);
    std::memcpy(first + 12, &words[0], 4);
    std::memcpy(second, b, 12);
    std::memcpy(second + 12, &words[1], 4);
  }
};
#endif

}  // namespace kvrscan
