/* The calls of the C library's libm that the picture and nib readers make. libm is
 * a library of its own on Linux: linked as usual, every run would map it at start, windows
 * or not. These take its place in the program and open it at their first call, as the GTK
 * module is opened when a window needs it. They are hidden: the C library has frexp and modf too,
 * and a program's copy of a library's symbol would otherwise be exported and taken by
 * every library loaded later, GTK's included. (<math.h> and the compiler's built-in math
 * stay out: their declarations would make them visible again.) */
#include <dlfcn.h>

namespace {

/* libm's own copy of a call; null when libm cannot be opened, which a glibc system does not
 * allow (libm is part of it). */
template <typename Function> Function* FromLibm(const char* name) {
    static void* const libm = dlopen("libm.so.6", RTLD_NOW | RTLD_LOCAL);
    return libm != nullptr ? reinterpret_cast<Function*>(dlsym(libm, name)) : nullptr;
}

constexpr double kNotANumber = __builtin_nan("");

} // namespace

extern "C" {

#pragma GCC visibility push(hidden)

double pow(double x, double y) {
    static auto* const call = FromLibm<double(double, double)>("pow");
    return call != nullptr ? call(x, y) : kNotANumber;
}

double fmod(double x, double y) {
    static auto* const call = FromLibm<double(double, double)>("fmod");
    return call != nullptr ? call(x, y) : kNotANumber;
}

double floor(double x) {
    static auto* const call = FromLibm<double(double)>("floor");
    return call != nullptr ? call(x) : kNotANumber;
}

double frexp(double x, int* exponent) {
    static auto* const call = FromLibm<double(double, int*)>("frexp");
    return call != nullptr ? call(x, exponent) : kNotANumber;
}

double modf(double x, double* integral) {
    static auto* const call = FromLibm<double(double, double*)>("modf");
    return call != nullptr ? call(x, integral) : kNotANumber;
}

#pragma GCC visibility pop

} // extern "C"
