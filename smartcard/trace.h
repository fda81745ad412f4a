#pragma once

#include <p11-kit/pkcs11.h>

#include <span>

/// Prints a debug trace to standard output, without a prefix or a newline of its own.
[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...) noexcept;

/// Prints `heading`, then each byte in hexadecimal without a leading zero and followed by a space, then a
/// newline.
void traceBytes(const char* heading, std::span<const CK_BYTE> bytes);

/// Flushes the traces to the operating system. The last line then shows where a module hangs, waits for a PIN
/// pad or crashes, and traces and Java's own output keep their order.
void flushTraces() noexcept;

/// Flushes the traces before the return to Java. Every entry point that traces declares it first, so that it
/// is destroyed last.
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
