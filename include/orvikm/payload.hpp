#pragma once

#include <functional>
#include <string>

namespace orvikm {

/// The body of a message or registry: a byte buffer, its size, a type label of
/// the application's choosing, and a free callback. The payload owns its buffer
/// exactly while the free callback is set: the destructor then calls it once
/// with the buffer. release() gives ownership up.
class Payload {
public:
    /// Called once with the buffer to release it.
    using FreeCallback = std::function<void(char*)>;

    /// The callback the library uses for buffers allocated with new char[]:
    /// releases them with delete[] and does nothing for a null pointer.
    static void defaultFree(char* buffer);

    /// Takes the buffer as given, without copying its bytes; the payload owns it
    /// unless freeCallback is empty.
    Payload(char* buffer, unsigned size, std::string type,
            FreeCallback freeCallback = &Payload::defaultFree);
    /// Allocates size uninitialised bytes (also for 0) that the payload owns.
    Payload(unsigned size, std::string type);

    /// Deep copy into a buffer of its own, freed with defaultFree whatever the
    /// source's callback. A source without a buffer (moved from) still has a
    /// size: the copy then holds that many zero bytes.
    Payload(const Payload& other);
    /// Replaces the buffer by a new copy of other's bytes and takes a copy of
    /// other's free callback. The previous buffer is not released: the caller
    /// keeps whatever it needs to free it. From a source without a buffer the
    /// new one holds size() zero bytes.
    Payload& operator=(const Payload& other);
    /// Takes other's buffer, callback and type without copying bytes. other is
    /// left with a null buffer, no callback and an empty type, but keeps size().
    Payload(Payload&& other) noexcept;
    /// Takes other's buffer and callback and swaps the type labels. The
    /// previous buffer is not released; other is left with a null buffer, no
    /// callback and its size.
    Payload& operator=(Payload&& other) noexcept;

    /// Calls the free callback, if set, with the buffer.
    virtual ~Payload();

    /// Gives up ownership: the callback is dropped, buffer, size and type stay.
    void release();

    /// The free callback; empty when the payload does not own its buffer.
    FreeCallback getFreeCallback() const { return _free_callback; }
    /// Whether a free callback is set, without copying it.
    bool hasFreeCallback() const noexcept { return static_cast<bool>(_free_callback); }
    ///@{
    /// The buffer; null once moved from.
    char* getBuffer() { return _buffer; }
    const char* getBuffer() const { return _buffer; }
    ///@}
    /// The buffer's size in bytes.
    unsigned size() const { return _size; }
    /// The type label.
    const std::string& type() const { return _type; }

private:
    char* _buffer;
    FreeCallback _free_callback;
    unsigned _size;
    std::string _type;
};

}  // namespace orvikm
