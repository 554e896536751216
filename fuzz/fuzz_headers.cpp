// Feeds arbitrary header maps to the decoding constructor of every request
// class, and checks that whatever decodes encodes back to the same headers.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <orvikm/orvikm.hpp>

namespace {

using orvikm::internal_objects::HeaderMap;

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "property violated: %s\n", what);
        std::abort();
    }
}

// One header per line, key and value split at the first "|".
HeaderMap headersOf(const std::string& text) {
    HeaderMap headers;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        const std::size_t separator = line.find('|');
        if (separator == std::string::npos) {
            headers[line] = "";
        } else {
            headers[line.substr(0, separator)] = line.substr(separator + 1);
        }
        start = end + 1;
    }
    return headers;
}

// Every header a request produces, but for the payload's, decodes back to it.
template <typename RequestType>
void checkReencodes(const RequestType& request) {
    HeaderMap encoded = request.create_protocol_headers();
    encoded.erase("p_size");
    encoded.erase("p_type");
    HeaderMap again = encoded;
    const RequestType copy(again);
    check(again.empty(), "decoding left headers behind");
    check(copy.create_protocol_headers() == request.create_protocol_headers(),
          "a decoded request does not encode back to the same headers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    HeaderMap headers = headersOf(text);
    const HeaderMap original = headers;
    try {
        switch (data[0] % 5) {
            case 0: {
                orvikm::Message message(orvikm::Payload(0, ""), {"route"}, headers);
                check(headers.empty(), "Message left headers behind");
                HeaderMap encoded = message.create_protocol_headers();
                encoded.erase("p_size");
                encoded.erase("p_type");
                const orvikm::Message again(orvikm::Payload(0, ""), {"route"}, encoded);
                // One empty origin name encodes as ",", which is also how no
                // names at all are written: that list alone cannot survive.
                const bool ambiguousOrigin = message.originNodes() == std::vector<std::string>{""};
                check(again.msgId() == message.msgId() && again.appId() == message.appId() &&
                          again.validFor() == message.validFor() &&
                          again.ackMode() == message.ackMode() &&
                          (ambiguousOrigin ? again.originNodes().empty()
                                           : again.originNodes() == message.originNodes()),
                      "a decoded Message does not round-trip");
                break;
            }
            case 1: {
                const orvikm::internal_objects::Inbox inbox(headers);
                check(headers.empty(), "Inbox left headers behind");
                checkReencodes(inbox);
                break;
            }
            case 2: {
                const orvikm::internal_objects::Ack ack(headers);
                check(headers.empty(), "Ack left headers behind");
                checkReencodes(ack);
                break;
            }
            case 3: {
                const orvikm::internal_objects::GetRegistry request(headers);
                check(headers == original, "GetRegistry changed the caller's headers");
                check(original.empty(), "GetRegistry accepted headers");
                break;
            }
            case 4: {
                const orvikm::Registry registry(orvikm::Payload(0, "json"), headers);
                check(original.empty(), "Registry accepted headers");
                break;
            }
        }
    } catch (const orvikm::ProtocolError&) {
    } catch (const std::invalid_argument&) {
        // "valid_for" that is no number passes out as it is.
    } catch (const std::out_of_range&) {
    }
    return 0;
}
