// called_functions.h: elementary functions of single numbers, for files that have no fused multiply-add. Internal.
//
// The same bits as elementary.h and elementary_double.h give to rows, from one file with the instruction.
#pragma once

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

}  // namespace ornik::elementary::called
