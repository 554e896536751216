#include <orvikm/payload.hpp>

#include <cstring>
#include <utility>

namespace orvikm {

namespace {

// memmove rather than memcpy: nothing forbids a payload from describing bytes
// that overlap another's. A moved-from payload keeps its size but has no
// buffer: its copy gets as many zero bytes instead of a read through null.
void copyInto(char* target, const char* source, unsigned size) {
    if (size == 0) {
        return;
    }
    if (source == nullptr) {
        std::memset(target, 0, size);
    } else {
        std::memmove(target, source, size);
    }
}

char* copyOf(const char* source, unsigned size) {
    char* copy = new char[size];
    copyInto(copy, source, size);
    return copy;
}

}  // namespace

void Payload::defaultFree(char* buffer) {
    delete[] buffer;
}

Payload::Payload(char* buffer, unsigned size, std::string type, FreeCallback freeCallback)
    : _buffer(buffer),
      _free_callback(std::move(freeCallback)),
      _size(size),
      _type(std::move(type)) {}

Payload::Payload(unsigned size, std::string type)
    : Payload(new char[size], size, std::move(type), &Payload::defaultFree) {}

Payload::Payload(const Payload& other)
    : Payload(copyOf(other._buffer, other._size), other._size, other._type, &Payload::defaultFree) {
}

Payload& Payload::operator=(const Payload& other) {
    _buffer = new char[other._size];
    _free_callback = other._free_callback;
    _size = other._size;
    _type = other._type;
    copyInto(_buffer, other._buffer, _size);
    return *this;
}

Payload::Payload(Payload&& other) noexcept
    : _buffer(std::exchange(other._buffer, nullptr)),
      _free_callback(std::move(other._free_callback)),
      _size(other._size),
      _type(std::move(other._type)) {
    other._free_callback = nullptr;
    other._type.clear();
}

Payload& Payload::operator=(Payload&& other) noexcept {
    _buffer = std::exchange(other._buffer, nullptr);
    _free_callback = std::move(other._free_callback);
    other._free_callback = nullptr;
    _size = other._size;
    _type.swap(other._type);
    return *this;
}

Payload::~Payload() {
    if (_free_callback) {
        _free_callback(_buffer);
        _buffer = nullptr;
    }
}

void Payload::release() {
    _free_callback = nullptr;
}

}  // namespace orvikm
