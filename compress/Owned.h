// Small owners for the compression library. The library is built without
// exceptions and without the C++ runtime's containers: memory comes from the
// process heap and every operation that can fail says so.
#pragma once

#include <windows.h>

#include <cstring>
#include <type_traits>

namespace marrowby {

// A file or find handle, closed on destruction; closing keeps GetLastError.
template <BOOL(WINAPI* Close)(HANDLE)>
class COwnedHandle {
public:
    COwnedHandle() = default;
    explicit COwnedHandle(HANDLE h) : m_h(h) {}
    ~COwnedHandle() { Reset(); }
    COwnedHandle(const COwnedHandle&) = delete;
    COwnedHandle& operator=(const COwnedHandle&) = delete;

    HANDLE Get() const { return m_h; }
    bool Valid() const { return m_h != INVALID_HANDLE_VALUE && m_h != nullptr; }
    void Reset(HANDLE h = INVALID_HANDLE_VALUE)
    {
        if (Valid()) {
            DWORD error = GetLastError();
            Close(m_h);
            SetLastError(error);
        }
        m_h = h;
    }
    // Closes now and reports whether the close succeeded.
    bool CloseNow()
    {
        bool ok = !Valid() || Close(m_h) != FALSE;
        m_h = INVALID_HANDLE_VALUE;
        return ok;
    }

private:
    HANDLE m_h = INVALID_HANDLE_VALUE;
};
using CFile = COwnedHandle<CloseHandle>;
using CFind = COwnedHandle<FindClose>;

// A growable array of plain values on the process heap.
template <typename T>
class CHeapArray {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    CHeapArray() = default;
    ~CHeapArray()
    {
        if (m_p != nullptr)
            HeapFree(GetProcessHeap(), 0, m_p);
    }
    CHeapArray(const CHeapArray&) = delete;
    CHeapArray& operator=(const CHeapArray&) = delete;

    T* Data() { return m_p; }
    const T* Data() const { return m_p; }
    size_t Size() const { return m_size; }
    T& operator[](size_t i) { return m_p[i]; }
    const T& operator[](size_t i) const { return m_p[i]; }

    bool Reserve(size_t capacity)
    {
        if (capacity <= m_capacity)
            return true;
        if (capacity > SIZE_MAX / sizeof(T))
            return false;
        void* p = m_p == nullptr ? HeapAlloc(GetProcessHeap(), 0, capacity * sizeof(T))
                                 : HeapReAlloc(GetProcessHeap(), 0, m_p, capacity * sizeof(T));
        if (p == nullptr)
            return false;
        m_p = static_cast<T*>(p);
        m_capacity = capacity;
        return true;
    }
    // Sets the size, growing the storage as needed (new values are undefined).
    bool Resize(size_t size)
    {
        if (!Reserve(size))
            return false;
        m_size = size;
        return true;
    }
    bool Append(const T* values, size_t count)
    {
        if (count > SIZE_MAX - m_size)
            return false;
        if (m_size + count > m_capacity) {
            size_t grown = m_capacity < 64 ? 64 : m_capacity;
            while (grown < m_size + count)
                grown = grown > SIZE_MAX / 2 ? m_size + count : grown * 2;
            if (!Reserve(grown))
                return false;
        }
        if (count != 0)
            std::memcpy(m_p + m_size, values, count * sizeof(T));
        m_size += count;
        return true;
    }
    bool Push(const T& value) { return Append(&value, 1); }

private:
    T* m_p = nullptr;
    size_t m_size = 0;
    size_t m_capacity = 0;
};

}  // namespace marrowby
