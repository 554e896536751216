#include <orviku/uuid.hpp>

#include <uuid/uuid.h>

namespace orviku {

std::string generate_str_uuid() {
    uuid_t id;
    uuid_generate_random(id);
    char text[37];
    uuid_unparse_lower(id, text);
    return std::string(text, 36);
}

}  // namespace orviku
