#pragma once

#include <p11-kit/pkcs11.h>

#include <span>

/// Prints a debug trace to standard output, exactly as formatted: no prefix, no line end of its own.
[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...) noexcept;

/// Prints `heading`, then every byte in hexadecimal without leading zeros, each followed by a blank, then a
/// line end.
void traceBytes(const char* heading, std::span<const CK_BYTE> bytes);

/// Hands what has been traced to the operating system, so that a module that hangs, waits for a PIN pad or
/// crashes shows where, and the lines keep their place among Java's own output.
void flushTraces() noexcept;

/// Stands first in every entry point that traces: flushes on the way back to Java, after all else is done.
class TracedCall {
 public:
  TracedCall() = default;
  TracedCall(const TracedCall&) = delete;
  TracedCall& operator=(const TracedCall&) = delete;
  ~TracedCall() { flushTraces(); }
};

/// The low 32 bits, as %x prints them.
constexpr unsigned hex32(CK_ULONG value) { return static_cast<unsigned>(value); }

/// The low 32 bits, as %d prints them.
constexpr int dec32(CK_ULONG value) { return static_cast<int>(value); }
