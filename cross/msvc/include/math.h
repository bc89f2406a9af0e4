// Wine's <math.h> lacks the long double functions, which libc++'s <cmath> names, and two C99
// float ones. long double is double in Microsoft's ABI. Microsoft's own header defines the
// classic ones inline over the double functions, as here; ucrtbase.dll exports the C99 ones.
#include_next <math.h>

#if defined(__cplusplus) && !defined(TERN_MSVC_MATH_FIXES)
#define TERN_MSVC_MATH_FIXES

#define TERN_LONG_DOUBLE_1(f) \
  static inline long double f##l(long double x) { return f(static_cast<double>(x)); }
#define TERN_LONG_DOUBLE_2(f)                                        \
  static inline long double f##l(long double x, long double y) {     \
    return f(static_cast<double>(x), static_cast<double>(y));        \
  }
TERN_LONG_DOUBLE_1(acos) TERN_LONG_DOUBLE_1(asin) TERN_LONG_DOUBLE_1(atan)
TERN_LONG_DOUBLE_1(ceil) TERN_LONG_DOUBLE_1(cos) TERN_LONG_DOUBLE_1(cosh)
TERN_LONG_DOUBLE_1(exp) TERN_LONG_DOUBLE_1(fabs) TERN_LONG_DOUBLE_1(floor)
TERN_LONG_DOUBLE_1(log) TERN_LONG_DOUBLE_1(log10) TERN_LONG_DOUBLE_1(sin)
TERN_LONG_DOUBLE_1(sinh) TERN_LONG_DOUBLE_1(sqrt) TERN_LONG_DOUBLE_1(tan)
TERN_LONG_DOUBLE_1(tanh)
TERN_LONG_DOUBLE_2(atan2) TERN_LONG_DOUBLE_2(fmod) TERN_LONG_DOUBLE_2(pow)
TERN_LONG_DOUBLE_2(hypot)
#undef TERN_LONG_DOUBLE_1
#undef TERN_LONG_DOUBLE_2
static inline long double ldexpl(long double x, int exponent) {
  return ldexp(static_cast<double>(x), exponent);
}
static inline long double frexpl(long double x, int* exponent) {
  return frexp(static_cast<double>(x), exponent);
}
static inline long double modfl(long double x, long double* whole) {
  double part = 0;
  const double fraction = modf(static_cast<double>(x), &part);
  *whole = part;
  return fraction;
}

extern "C" {
_ACRTIMP long double __cdecl acoshl(long double);
_ACRTIMP long double __cdecl asinhl(long double);
_ACRTIMP long double __cdecl atanhl(long double);
_ACRTIMP long double __cdecl cbrtl(long double);
_ACRTIMP long double __cdecl erfl(long double);
_ACRTIMP long double __cdecl erfcl(long double);
_ACRTIMP float __cdecl erfcf(float);
_ACRTIMP long double __cdecl exp2l(long double);
_ACRTIMP long double __cdecl expm1l(long double);
_ACRTIMP long double __cdecl fdiml(long double, long double);
_ACRTIMP long double __cdecl fmaxl(long double, long double);
_ACRTIMP long double __cdecl fminl(long double, long double);
_ACRTIMP int __cdecl ilogbl(long double);
_ACRTIMP long double __cdecl lgammal(long double);
_ACRTIMP long double __cdecl log1pl(long double);
_ACRTIMP long double __cdecl log2l(long double);
_ACRTIMP long double __cdecl logbl(long double);
_ACRTIMP long double __cdecl nearbyintl(long double);
_ACRTIMP long double __cdecl nextafterl(long double, long double);
_ACRTIMP long double __cdecl nexttowardl(long double, long double);
_ACRTIMP float __cdecl nexttowardf(float, long double);
_ACRTIMP long double __cdecl remainderl(long double, long double);
_ACRTIMP long double __cdecl remquol(long double, long double, int*);
_ACRTIMP long double __cdecl scalblnl(long double, long);
_ACRTIMP long double __cdecl scalbnl(long double, int);
_ACRTIMP long double __cdecl tgammal(long double);
}

#endif
