// The public container of the DCPS interface: maximum, length, release flag and
// a buffer, with the reallocation rules applications rely on. Not thread-safe.
#ifndef MORVODDS_SEQUENCE_H
#define MORVODDS_SEQUENCE_H

#include <cstdint>
#include <stdexcept>

template <typename T>
class sequence {
public:
    sequence() : maximum(0), length(0), release(1), buffer(nullptr) {}
    sequence(const sequence& o) : maximum(0), length(0), release(1), buffer(nullptr) { *this = o; }
    ~sequence() {
        if (buffer != nullptr && release) reallocate(0);
    }

    // Deep copy: keeps this sequence's maximum when it is large enough.
    sequence& operator=(const sequence& o) {
        if (this == &o) return *this;
        if (!set_length(o.length, o.length > maximum ? o.length : maximum)) return *this;
        for (uint32_t i = 0; i < o.length; ++i) buffer[i] = o.buffer[i];
        return *this;
    }

    uint32_t get_maximum() const { return maximum; }
    uint32_t get_length() const { return length; }
    int get_release() const { return release; }
    T* get_buffer() const { return buffer; }
    uint32_t size() const { return length; }

    // Refused when the invariant is broken or the buffer is not ours to free.
    bool reallocate(uint32_t new_maximum) {
        if (length > maximum || (maximum != 0 && buffer == nullptr) || release == 0) return false;
        if (new_maximum == maximum) return true;
        T* fresh = new_maximum ? new T[new_maximum] : nullptr;
        uint32_t keep = length < new_maximum ? length : new_maximum;
        for (uint32_t i = 0; i < keep; ++i) fresh[i] = buffer[i];
        delete[] buffer;
        buffer = fresh;
        maximum = new_maximum;
        length = keep;
        return true;
    }

    bool set_length(uint32_t new_length, uint32_t target_maximum) {
        if (new_length > target_maximum) return false;
        if (new_length > maximum && !reallocate(target_maximum)) return false;
        length = new_length;
        return true;
    }
    bool set_length(uint32_t new_length) {
        return set_length(new_length, new_length > maximum ? new_length : maximum);
    }

    // Appends one element, doubling the maximum when full.
    bool push_back(const T& v) {
        if (length == maximum && !reallocate(maximum ? maximum * 2 : 4)) return false;
        buffer[length++] = v;
        return true;
    }

    T& operator[](uint32_t i) {
        if (i >= length) throw std::out_of_range("sequence index out of range");
        return buffer[i];
    }
    const T& operator[](uint32_t i) const {
        if (i >= length) throw std::out_of_range("sequence index out of range");
        return buffer[i];
    }

    uint32_t maximum;
    uint32_t length;
    int32_t release;
    T* buffer;
};

#endif
