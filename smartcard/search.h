#pragma once

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "marshal.h"
#include "memory.h"
#include "module.h"

/// A search in a session, begun where it is declared and ended at the latest where its scope is left: a
/// session has one search at a time, and none may outlive the call. `Room` is how many handles it asks for.
///
/// Where a failed begin ends the call, test begun(); nothing is left to end then. An entry point that goes on
/// regardless leaves it to the next call to fail, and ends the search all the same.
template <std::size_t Room = 1>
class Search {
 public:
  /// An empty template matches every object.
  template <std::size_t N = 0>
  explicit Search(Session session, std::array<CK_ATTRIBUTE, N> wanted = {}) : session_(session) {
    begin_ = call(&CK_FUNCTION_LIST::C_FindObjectsInit, session_, N == 0 ? nullptr : wanted.data(), N);
  }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;
  ~Search() {
    if (active_) end();
  }

  bool begun() const { return begin_ == CKR_OK; }

  CK_RV next() {
    active_ = true;
    count_ = 0;  // modules leave the count as it is when they fail
    next_ = call(&CK_FUNCTION_LIST::C_FindObjects, session_, handles_.data(), Room, &count_);
    return next_;
  }

  CK_RV end() {
    active_ = false;
    return call(&CK_FUNCTION_LIST::C_FindObjectsFinal, session_);
  }

  /// How many objects the last next() reported: the module's word, whether the call succeeded or not.
  CK_ULONG count() const { return count_; }

  /// The objects that this search yielded in the last next(): the only handles that may go to the module.
  std::span<const CK_OBJECT_HANDLE> objects() const {
    return std::span(handles_).first(begun() && next_ == CKR_OK ? std::min<CK_ULONG>(count_, Room) : 0);
  }

  bool found() const { return !objects().empty(); }
  CK_OBJECT_HANDLE object() const { return objects().front(); }

  /// Why there is no object to work on: the failure of the search, or CKR_OBJECT_HANDLE_INVALID if it
  /// succeeded and found none.
  CK_RV whyNotFound() const {
    if (!begun()) return begin_;
    return next_ != CKR_OK ? next_ : CKR_OBJECT_HANDLE_INVALID;
  }

 private:
  Session session_;
  std::array<CK_OBJECT_HANDLE, Room> handles_ = {};
  CK_ULONG count_ = 0;
  CK_RV begin_ = CKR_OK;
  CK_RV next_ = CKR_OK;
  bool active_ = false;  // from the first next() on: nothing leaves an entry point before it
};

/// Takes a search that has just begun to its end, for one object, and traces each step; `begun` is what the
/// trace calls the first.
inline void runTraced(Search<>& search, const char* begun) {
  trace("%s = %d", begun, dec32(rv));
  search.next();
  trace("FindObjects = %d", dec32(rv));
  search.end();
  trace("FindObjectsFinal = %d", dec32(rv));
}

/// Attributes of one object, read in two calls: the first learns the lengths, the second copies the values.
template <std::size_t N>
class AttributeRead {
 public:
  AttributeRead(Session session, CK_OBJECT_HANDLE object, const std::array<CK_ATTRIBUTE_TYPE, N>& types)
      : session_(session), object_(object) {
    for (std::size_t i = 0; i < N; ++i) template_[i] = {types[i], nullptr, 0};
  }

  /// The first call.
  CK_RV lengths() {
    return call(&CK_FUNCTION_LIST::C_GetAttributeValue, session_, object_, template_.data(), N);
  }

  /// The second call; its result is in `rv`. The answer is that result, or CKR_GENERAL_ERROR where the module
  /// claims to have copied a value for which there was no room. A length that no Java array can have gets no
  /// buffer, so that the module has to refuse; a length of 0 is as good as any other and gets one.
  CK_RV values() {
    for (std::size_t i = 0; i < N; ++i) {
      if (template_[i].ulValueLen > kLongestArray) continue;
      buffers_[i] = zeroed<CK_BYTE>(template_[i].ulValueLen);
      template_[i].pValue = buffers_[i].get();
      rooms_[i] = template_[i].ulValueLen;
    }
    if (call(&CK_FUNCTION_LIST::C_GetAttributeValue, session_, object_, template_.data(), N) != CKR_OK)
      return rv;
    for (std::size_t i = 0; i < N; ++i) {
      if (buffers_[i] == nullptr || template_[i].ulValueLen > rooms_[i]) return CKR_GENERAL_ERROR;
    }
    return CKR_OK;
  }

  /// The value of the i-th attribute, after values() answered CKR_OK.
  std::span<CK_BYTE> operator[](std::size_t i) const { return {buffers_[i].get(), template_[i].ulValueLen}; }

 private:
  Session session_;
  CK_OBJECT_HANDLE object_;
  std::array<CK_ATTRIBUTE, N> template_ = {};
  std::array<Buffer<CK_BYTE>, N> buffers_;
  std::array<CK_ULONG, N> rooms_ = {};
};
