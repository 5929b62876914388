// called_functions.h: elementary functions of single numbers, for files that have no fused multiply-add. Internal.
//
// The same bits as elementary.h and elementary_double.h give to rows, from one file with the instruction.
#pragma once

#include <cstdint>

namespace ornik::elementary::called {

float exp(float x);
double exp(double x);
double expm1(double x);
float log(float x);
double log(double x);
double log1p(double x);
/// log(sqrt(x^2 + y^2)), where that root is from 1/2 to 2.
double log_hypot_near_one(double x, double y);
double pow(double x, double y);
double sin(double x);
double cos(double x);
double tan(double x);
struct SineCosine {
    double sin, cos;
};
SineCosine sin_and_cos(double x);
double sinh(double x);
double cosh(double x);
double asinh(double x);
double atan2(double y, double x);
double hypot(double x, double y);

// Functions of n complex numbers, whose real and imaginary parts become those of the results. False, and nothing done,
// where one of them is better looked at on its own: infinite, NaN, very large, or next to a singularity.
bool exp_parts(std::int64_t n, double* re, double* im);
bool asin_parts(std::int64_t n, double* re, double* im);
bool acos_parts(std::int64_t n, double* re, double* im);
bool atan_parts(std::int64_t n, double* re, double* im);
bool asinh_parts(std::int64_t n, double* re, double* im);
bool acosh_parts(std::int64_t n, double* re, double* im);
bool atanh_parts(std::int64_t n, double* re, double* im);

}  // namespace ornik::elementary::called
