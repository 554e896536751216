#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include <orvikm/payload.hpp>
#include <orvikm/request.hpp>

namespace wxblt {
class Socket;
}

namespace orvikm {

/// Reads one whole request at a time from a socket, checks its frame layout and
/// builds the request object that its command names ("MSG", "REG", "BOX",
/// "ACK", "GREG"). Every frame but the payload must fit in 100 bytes.
///
/// A request that breaks the layout fails with ProtocolError (or another error
/// of the orviku family), carrying context lines, innermost first, and the
/// outermost "While trying to decode a received request (NAME)". The rest of
/// that request's frames are then dropped, so the next receive() reads the next
/// request. A "p_size" that is no number is the exception: std::invalid_argument
/// or std::out_of_range leave as they are, unflushed.
///
/// Does not own the socket.
class Receiver {
public:
    /// Largest frame, other than a payload, that a request may hold.
    static constexpr unsigned _frame_capacity = 100;

    /// A receiver reading from `socket`, which must outlive it.
    explicit Receiver(wxblt::Socket* socket);
    /// Takes over the other receiver's socket and frame buffer.
    Receiver(Receiver&& other) noexcept;
    virtual ~Receiver();

    /// Reads one request; never returns an empty pointer.
    std::unique_ptr<internal_objects::Request> receive();

    /// Reads the next frame into the frame buffer. A frame longer than 100
    /// bytes is refused with ProtocolError.
    void readFrame();
    /// True when the last frame read is exactly one zero byte.
    bool is_delimiter_frame() const;
    /// Throws ProtocolError "Expected more frames. Next section: " + section
    /// when the last frame read was the request's last. Reads nothing.
    void expectMore(std::string section);
    /// As expectMore(std::string), building the section's string only when it
    /// throws.
    void expectMore(const char* section);

    /// Reads the route frames up to the delimiter that ends them.
    std::list<std::string> receive_routes();
    /// Reads the frame that names the request ("MSG", "ACK", ...).
    std::string receive_command();
    /// Reads the header frames ("key|value") up to the delimiter that ends
    /// them. A frame without the separator is refused with ProtocolError; a
    /// key given twice keeps its last value.
    internal_objects::HeaderMap receive_headers();
    /// Takes "p_size" and "p_type" out of the headers and reads the payload
    /// frame, which must be the request's last and hold at least "p_size"
    /// bytes (more are cut off).
    std::unique_ptr<Payload> receive_payload(internal_objects::HeaderMap& headers);
    /// Reads the closing delimiter of a request without payload. Frames after
    /// it are dropped unread, without error.
    void receive_termination();

private:
    void readFrame(const char* section);
    // expectMore for the receiver's own section names, which builds the
    // section's string only when it throws.
    void expect_more(const char* section);
    // receive_headers() into `headers`. A section that is exactly the
    // headers keys[0..count), in that order, leaves the map empty, their
    // values in values[0..count), and returns true; any other section is read
    // as receive_headers() reads it.
    bool read_headers(internal_objects::HeaderMap& headers, const char* const* keys,
                      std::size_t count, std::string* values);
    // receive_payload without the heap allocation of the returned pointer.
    Payload take_payload(internal_objects::HeaderMap& headers);
    // As above, with "p_size" and "p_type" already read.
    Payload take_payload(unsigned long long declared, std::string type);
    // The payload frame, once its headers are known.
    Payload read_payload(unsigned long long declared, std::string type);

    wxblt::Socket* socket;
    char frame[_frame_capacity];
    std::uint32_t frameSize;
};

}  // namespace orvikm
