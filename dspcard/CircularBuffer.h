// A ring of MAX_ITEMS items, first in first out, that overwrites its oldest items when it is full.
// The storage is allocated once, at construction; every copy is at most two block copies.
//
// The ring does not lock: one thread at a time may change it. Only the stored count may be read by
// other threads meanwhile (get_countUsed, get_countFree, is_empty, is_full). "Not allocated" is
// thrown, as a const char*, where storage is missing. A broken invariant ends the process.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

// COPYEACH: items are copied one by one with their own assignment; otherwise as raw memory.
template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
class CCircularBuffer {
  public:
    using DWORD = std::uint32_t;

    CCircularBuffer();
    explicit CCircularBuffer(const TYPE& item);
    CCircularBuffer(const TYPE* pSrc, DWORD dwCount);
    CCircularBuffer(const CCircularBuffer& other);
    CCircularBuffer& operator=(const CCircularBuffer& other);
    virtual ~CCircularBuffer();

    DWORD get_maxItems() const { return MAX_ITEMS; }
    DWORD get_countUsed() const { return m_dwUsed.load(std::memory_order_relaxed); }
    DWORD get_countFree() const { return MAX_ITEMS - get_countUsed(); }
    bool is_empty() const { return get_countUsed() == 0; }
    bool is_full() const { return get_countUsed() == MAX_ITEMS; }

    // Appends dwCount items, overwriting the oldest; of more than MAX_ITEMS the newest are kept.
    void Write(const TYPE* pSrc, DWORD dwCount);
    void Write(const TYPE& item) { Write(&item, 1); }
    // Removes up to dwCount of the oldest items into pDest; how many.
    DWORD Read(TYPE* pDest, DWORD dwCount);
    // Whether there was an item to remove.
    bool Read(TYPE& item) { return Read(&item, 1) == 1; }
    // Removes up to dwCount of the oldest items; how many.
    DWORD Discard(DWORD dwCount);
    void Empty() { Discard(get_countUsed()); }
    // Copies up to dwCount of the oldest items to pDest without removing them; how many.
    DWORD Peek(TYPE* pDest, DWORD dwCount) const;
    bool Peek(TYPE& item) const { return Peek(&item, 1) == 1; }

  protected:
    void ResetPointer(TYPE*& rpPointer, DWORD dwCount) const;
    void AdvancePointer(TYPE*& rpPointer, DWORD dwCount) const;
    static void CopyData(TYPE* pDest, const TYPE* pSrc, DWORD dwCount);

    const TYPE* c_pBufferStart;
    const TYPE* c_pBufferEnd;
    TYPE* m_pWrite;  // where the next written item goes
    TYPE* m_pRead;   // the oldest item
    std::atomic<DWORD> m_dwUsed;
    DWORD m_dwFree;

  private:
    TYPE* storage() const { return const_cast<TYPE*>(c_pBufferStart); }
    void setUsed(DWORD dwCount);
    void requireStorage() const;
    void checkInvariants() const;
    static void require(bool holds, const char* invariant);
};

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::CCircularBuffer()
    : c_pBufferStart(new (std::nothrow) TYPE[MAX_ITEMS]),
      c_pBufferEnd(nullptr),
      m_pWrite(storage()),
      m_pRead(storage()),
      m_dwUsed(0),
      m_dwFree(MAX_ITEMS) {
    requireStorage();
    c_pBufferEnd = c_pBufferStart + MAX_ITEMS;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::CCircularBuffer(const TYPE& item) : CCircularBuffer() {
    Write(item);
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::CCircularBuffer(const TYPE* pSrc, DWORD dwCount)
    : CCircularBuffer() {
    Write(pSrc, dwCount);
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::CCircularBuffer(const CCircularBuffer& other)
    : CCircularBuffer() {
    *this = other;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>& CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::operator=(
    const CCircularBuffer& other) {
    if (this != &other) {
        m_pRead = storage();
        m_pWrite = storage();
        setUsed(other.Peek(storage(), MAX_ITEMS));
        AdvancePointer(m_pWrite, get_countUsed());
    }
    return *this;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::~CCircularBuffer() {
    delete[] c_pBufferStart;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::Write(const TYPE* pSrc, DWORD dwCount) {
    requireStorage();
    checkInvariants();
    if (dwCount == 0 || pSrc == nullptr) {
        return;
    }
    if (dwCount > MAX_ITEMS) {
        pSrc += dwCount - MAX_ITEMS;
        dwCount = MAX_ITEMS;
    }
    const auto dwTrailingSpace = static_cast<DWORD>(c_pBufferEnd - m_pWrite);
    if (dwCount > dwTrailingSpace) {
        const DWORD dwRemaining = dwCount - dwTrailingSpace;
        CopyData(m_pWrite, pSrc, dwTrailingSpace);
        CopyData(storage(), pSrc + dwTrailingSpace, dwRemaining);
        ResetPointer(m_pWrite, dwRemaining);
    } else {
        CopyData(m_pWrite, pSrc, dwCount);
        AdvancePointer(m_pWrite, dwCount);
    }
    setUsed(m_dwFree >= dwCount ? get_countUsed() + dwCount : MAX_ITEMS);
    if (is_full()) {
        m_pRead = m_pWrite;
    }
    checkInvariants();
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
typename CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::DWORD
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::Read(TYPE* pDest, DWORD dwCount) {
    requireStorage();
    return Discard(Peek(pDest, dwCount));
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
typename CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::DWORD
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::Discard(DWORD dwCount) {
    requireStorage();
    checkInvariants();
    const DWORD dwRemoved = std::min(dwCount, get_countUsed());
    if (dwRemoved == 0) {
        return 0;
    }
    const auto dwTrailing = static_cast<DWORD>(c_pBufferEnd - m_pRead);
    if (dwRemoved < dwTrailing) {
        AdvancePointer(m_pRead, dwRemoved);
    } else {
        ResetPointer(m_pRead, dwRemoved - dwTrailing);
    }
    setUsed(get_countUsed() - dwRemoved);
    checkInvariants();
    return dwRemoved;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
typename CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::DWORD
CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::Peek(TYPE* pDest, DWORD dwCount) const {
    checkInvariants();
    const DWORD dwCopied = std::min(dwCount, get_countUsed());
    if (dwCopied == 0 || pDest == nullptr) {
        return 0;
    }
    const DWORD dwFirst = std::min(dwCopied, static_cast<DWORD>(c_pBufferEnd - m_pRead));
    CopyData(pDest, m_pRead, dwFirst);
    CopyData(pDest + dwFirst, c_pBufferStart, dwCopied - dwFirst);
    return dwCopied;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::ResetPointer(TYPE*& rpPointer,
                                                              DWORD dwCount) const {
    rpPointer = storage() + dwCount % MAX_ITEMS;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::AdvancePointer(TYPE*& rpPointer,
                                                                DWORD dwCount) const {
    rpPointer += dwCount;
    if (rpPointer >= c_pBufferEnd) {
        rpPointer = storage();
    }
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::CopyData(TYPE* pDest, const TYPE* pSrc,
                                                          DWORD dwCount) {
    if constexpr (COPYEACH) {
        std::copy_n(pSrc, dwCount, pDest);
    } else {
        static_assert(std::is_trivially_copyable_v<TYPE>, "raw copies need plain items");
        std::memcpy(pDest, pSrc, dwCount * sizeof(TYPE));
    }
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::setUsed(DWORD dwCount) {
    m_dwUsed.store(dwCount, std::memory_order_relaxed);
    m_dwFree = MAX_ITEMS - dwCount;
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::requireStorage() const {
    if (c_pBufferStart == nullptr) {
        throw "Not allocated";
    }
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::checkInvariants() const {
    const DWORD dwUsed = get_countUsed();
    require(dwUsed <= MAX_ITEMS, "(0 <= m_dwUsed) && (m_dwUsed <= MAX_ITEMS)");
    require(m_dwFree <= MAX_ITEMS, "(0 <= m_dwFree) && (m_dwFree <= MAX_ITEMS)");
    require(dwUsed + m_dwFree == MAX_ITEMS, "(m_dwUsed + m_dwFree) == MAX_ITEMS");
    require(c_pBufferStart <= m_pRead && m_pRead < c_pBufferEnd,
            "(c_pBufferStart <= m_pRead) && (m_pRead < c_pBufferEnd)");
    require(c_pBufferStart <= m_pWrite && m_pWrite < c_pBufferEnd,
            "(c_pBufferStart <= m_pWrite) && (m_pWrite < c_pBufferEnd)");
}

template <class TYPE, std::uint32_t MAX_ITEMS, bool COPYEACH>
void CCircularBuffer<TYPE, MAX_ITEMS, COPYEACH>::require(bool holds, const char* invariant) {
    if (!holds) {
        std::fprintf(stderr, "CCircularBuffer: assertion failed: %s\n", invariant);
        std::abort();
    }
}
