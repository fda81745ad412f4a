#pragma once

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "marshal.h"
#include "memory.h"
#include "module.h"

/// A search in a session. The constructor begins it. After next(), the destructor ends it unless end() was
/// called: a session has one search at a time, and none may outlive the entry point. Call next() after every
/// begin that succeeds. next() asks for `MaxObjects` handles.
///
/// If hasBegun() is false, some entry points return without end(). The others do not test it: they call
/// next(), which fails, and end().
template <std::size_t MaxObjects = 1>
class Search {
 public:
  /// An empty template matches every object.
  template <std::size_t N = 0>
  explicit Search(Session session, std::array<CK_ATTRIBUTE, N> wanted = {}) : session_(session) {
    beginCode_ = call(&CK_FUNCTION_LIST::C_FindObjectsInit, session_, N == 0 ? nullptr : wanted.data(), N);
  }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;
  ~Search() {
    if (active_) end();
  }

  bool hasBegun() const { return beginCode_ == CKR_OK; }

  CK_RV next() {
    active_ = true;
    count_ = 0;  // some modules leave it unwritten when they fail
    nextCode_ = call(&CK_FUNCTION_LIST::C_FindObjects, session_, handles_.data(), MaxObjects, &count_);
    return nextCode_;
  }

  CK_RV end() {
    active_ = false;
    return call(&CK_FUNCTION_LIST::C_FindObjectsFinal, session_);
  }

  /// The unchecked count that the module reported in the last next(), whether it succeeded or not.
  CK_ULONG count() const { return count_; }

  /// The objects that the last next() found. Only these handles may be passed to the module.
  std::span<const CK_OBJECT_HANDLE> objects() const {
    return std::span(handles_).first(
        hasBegun() && nextCode_ == CKR_OK ? std::min<CK_ULONG>(count_, MaxObjects) : 0);
  }

  bool found() const { return !objects().empty(); }
  CK_OBJECT_HANDLE object() const { return objects().front(); }

  /// Why nothing was found: the code of the failed call, or CKR_OBJECT_HANDLE_INVALID if no object matches.
  CK_RV notFoundCode() const {
    if (!hasBegun()) return beginCode_;
    return nextCode_ != CKR_OK ? nextCode_ : CKR_OBJECT_HANDLE_INVALID;
  }

 private:
  Session session_;
  std::array<CK_OBJECT_HANDLE, MaxObjects> handles_ = {};
  CK_ULONG count_ = 0;
  CK_RV beginCode_ = CKR_OK;
  CK_RV nextCode_ = CKR_OK;
  bool active_ = false;  // from next() to end()
};

/// Asks a search that has just begun for one object, ends the search, and traces all three codes. The first
/// must still be in `rv`; `beginName` is the name of C_FindObjectsInit in the trace.
inline void runTraced(Search<>& search, const char* beginName) {
  trace("%s = %d", beginName, dec32(rv));
  search.next();
  trace("FindObjects = %d", dec32(rv));
  search.end();
  trace("FindObjectsFinal = %d", dec32(rv));
}

/// Reads attributes of one object in two calls: first the lengths, then the values.
template <std::size_t N>
class AttributeRead {
 public:
  AttributeRead(Session session, CK_OBJECT_HANDLE object, const std::array<CK_ATTRIBUTE_TYPE, N>& types)
      : session_(session), object_(object) {
    for (std::size_t i = 0; i < N; ++i) template_[i] = {types[i], nullptr, 0};
  }

  CK_RV readLengths() {
    return call(&CK_FUNCTION_LIST::C_GetAttributeValue, session_, object_, template_.data(), N);
  }

  /// Stores the module's code in `rv`. Returns it, or CKR_GENERAL_ERROR if the module claims to have copied a
  /// value longer than its buffer. A length beyond kLongestArray gets no buffer; a length of 0 gets one.
  CK_RV readValues() {
    for (std::size_t i = 0; i < N; ++i) {
      if (template_[i].ulValueLen > kLongestArray) continue;
      buffers_[i] = zeroed<CK_BYTE>(template_[i].ulValueLen);
      template_[i].pValue = buffers_[i].get();
      capacities_[i] = template_[i].ulValueLen;
    }
    if (call(&CK_FUNCTION_LIST::C_GetAttributeValue, session_, object_, template_.data(), N) != CKR_OK)
      return rv;
    for (std::size_t i = 0; i < N; ++i) {
      if (buffers_[i] == nullptr || template_[i].ulValueLen > capacities_[i]) return CKR_GENERAL_ERROR;
    }
    return CKR_OK;
  }

  /// The value of the i-th attribute, after readValues() returned CKR_OK.
  std::span<CK_BYTE> operator[](std::size_t i) const { return {buffers_[i].get(), template_[i].ulValueLen}; }

 private:
  Session session_;
  CK_OBJECT_HANDLE object_;
  std::array<CK_ATTRIBUTE, N> template_ = {};
  std::array<Buffer<CK_BYTE>, N> buffers_;
  std::array<CK_ULONG, N> capacities_ = {};
};
