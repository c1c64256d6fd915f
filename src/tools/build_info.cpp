#include "tools/build_info.h"

#include <string>

#include <build_info.h>  // generated at configure time
#include "utils/version.h"

static const char* or_unknown(const char* text)
{
    return (text && text[0] != '\0') ? text : "unknown";
}

const char* obx_build_info(void)
{
    static const std::string record = std::string("build time: ") + or_unknown(OBX_BUILD_TIME) + "\n" +
                                      "version: " + OBX_VERSION_TEXT + " (revision " +
                                      or_unknown(OBX_SOURCE_REVISION) + ")\n" +
                                      "compiler: " + or_unknown(OBX_BUILD_COMPILER) + "\n" +
                                      "zlib: " + or_unknown(OBX_BUILD_ZLIB) + "\n" +
                                      "OpenSSL: " + or_unknown(OBX_BUILD_OPENSSL) + "\n" +
                                      "snappy: " + or_unknown(OBX_BUILD_SNAPPY) + "\n" +
                                      "Boost: " + or_unknown(OBX_BUILD_BOOST) + "\n" +
                                      "Jansson: " + or_unknown(OBX_BUILD_JANSSON);
    return record.c_str();
}
