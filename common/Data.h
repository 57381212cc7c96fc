// One chunk of bytes as a port reader received it.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

struct Data {
    std::shared_ptr<uint8_t[]> buffer;
    // buffer plus 9; read by nothing in the capture path, kept for the chunk's
    // layout. Null when the chunk is too small to have that offset.
    uint8_t* payload = nullptr;
    int32_t length = 0;    // bytes held
    int32_t capacity = 0;  // bytes allocated

    explicit Data(int32_t cap)
        : buffer(new uint8_t[cap > 0 ? cap : 1]()), capacity(cap > 0 ? cap : 0)
    {
        payload = capacity > 9 ? buffer.get() + 9 : nullptr;
    }

    static std::shared_ptr<Data> FromBytes(const uint8_t* bytes, int32_t n)
    {
        auto d = std::make_shared<Data>(n);
        if (n > 0)
            std::memcpy(d->buffer.get(), bytes, static_cast<size_t>(n));
        d->length = n > 0 ? n : 0;
        return d;
    }
};

using DataPtr = std::shared_ptr<Data>;
