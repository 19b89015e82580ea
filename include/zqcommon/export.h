// ZQ_EXPORT marks the library's public interface: every class and free
// function declared in a public header carries it, and nothing else is
// visible outside libzqcommon.so.1 once the library is built with hidden
// visibility. Internal helpers (namespace zqdetail, files under src/) never
// carry it.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZQ_EXPORT __attribute__((visibility("default")))
#else
#define ZQ_EXPORT
#endif
