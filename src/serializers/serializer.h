// Base of the serializers that turn a whole data page into lines of text.
#pragma once

#include <map>
#include <string>
#include <vector>

struct obx_data_page_t;
struct obx_type_system_t;

namespace obx {
namespace data {

// Tags that go on every line, ordered by byte-wise comparison of the keys.
using SerializerTags = std::map<std::string, std::string>;

class Serializer {
public:
    // The lines of every event and counter block of `page`, read through `type_system`.
    virtual std::vector<std::string> serializePage(const SerializerTags& tags, const obx_data_page_t* page,
                                                   const obx_type_system_t* type_system) = 0;

protected:
    // Serializers live on the stack and are never deleted through the base.
    Serializer() = default;
    Serializer(const Serializer&) = default;
    Serializer& operator=(const Serializer&) = default;
    ~Serializer() = default;
};

}  // namespace data
}  // namespace obx
