#include "data/data_file_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <string>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"

using namespace obx_test;

namespace {

std::string capture(const std::function<void(FILE*)>& print) {
    char* buffer = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&buffer, &length);
    print(stream);
    std::fclose(stream);
    std::string text(buffer, length);
    std::free(buffer);
    return text;
}

obx_data_file_header_t decoded(const FileHeaderSpec& spec) {
    const Bytes bytes = file_header(spec);
    obx_data_file_header_t header;
    obx_data_file_header_decode(bytes.data(), &header);
    return header;
}

const char* const kIdA = "00112233445566778899aabbccddeeff";
const char* const kIdB = "0123456789abcdefFEDCBA9876543210";

}  // namespace

// ---- header bytes -------------------------------------------------------------------------

TEST(DataFileHeader, DecodeReadsEveryFieldAtItsOffsetAndEncodeGivesTheSameBytes) {
    FileHeaderSpec spec;
    spec.version_major = 1;
    spec.version_minor = 6;
    spec.version_patch = 0x1234;
    spec.file_size = 0x0102030405060708ull;
    spec.source_id = std::string(64, 'i');  // fills the field, no NUL
    spec.source_tag = "tag-15-chars-xx";
    spec.first_timestamp = 0x1111111111111111ull;
    spec.last_timestamp = 0x2222222222222222ull;
    spec.block_size = 0x00ABCDEF;
    spec.counters_schema_id = kIdA;
    spec.event_schema_ids = {"", kIdB, "", "", "", "", kIdA};
    spec.byte_order = 1;
    spec.magic_end = "ENDX";
    const Bytes bytes = file_header(spec);
    ASSERT_EQ(bytes.size(), OBX_FILE_HEADER_SIZE);

    obx_data_file_header_t header;
    obx_data_file_header_decode(bytes.data(), &header);
    EXPECT_EQ(std::string(header.magic, 4), "OBXF");
    EXPECT_EQ(header.version, 0x12340601u);
    EXPECT_EQ(header.file_size, 0x0102030405060708ull);
    EXPECT_EQ(std::string(header.source_id, 64), std::string(64, 'i'));
    EXPECT_EQ(std::string(header.source_tag, 15), "tag-15-chars-xx");
    EXPECT_EQ(header.first_timestamp, 0x1111111111111111ull);
    EXPECT_EQ(header.last_timestamp, 0x2222222222222222ull);
    EXPECT_EQ(header.block_size, 0x00ABCDEFu);
    EXPECT_EQ(Bytes(header.counters_schema_id, header.counters_schema_id + 16), schema_id_from_hex(kIdA));
    EXPECT_EQ(Bytes(header.event_schema_ids[1], header.event_schema_ids[1] + 16), schema_id_from_hex(kIdB));
    EXPECT_EQ(Bytes(header.event_schema_ids[6], header.event_schema_ids[6] + 16), schema_id_from_hex(kIdA));
    EXPECT_EQ(Bytes(header.event_schema_ids[0], header.event_schema_ids[0] + 16), Bytes(16, 0));
    EXPECT_EQ(header.byte_order, 1);
    EXPECT_EQ(std::string(header.magic_end, 4), "ENDX");

    Bytes encoded(OBX_FILE_HEADER_SIZE, 0xEE);
    obx_data_file_header_encode(&header, encoded.data());
    EXPECT_EQ(encoded, bytes);
}

TEST(DataFileHeader, CreateGivesTheFreshHeaderOfAWriter) {
    obx_data_file_header_t* header = obx_data_file_header_create();
    ASSERT_NE(header, nullptr);
    Bytes encoded(OBX_FILE_HEADER_SIZE, 0xEE);
    obx_data_file_header_encode(header, encoded.data());
    FileHeaderSpec expected;
    expected.source_id = "";
    expected.source_tag = "";
    expected.first_timestamp = 0;
    expected.last_timestamp = 0;
    expected.block_size = 0;
    EXPECT_EQ(encoded, file_header(expected));
    EXPECT_TRUE(obx_data_file_header_validate(header));
    std::free(header);
}

// ---- validation ---------------------------------------------------------------------------

TEST(DataFileHeader, ValidationChecksMagicVersionAndSizeInThatOrder) {
    struct Case {
        const char* name;
        std::function<void(FileHeaderSpec&)> change;
        bool valid;
        const char* message;  // the one error line expected, or nullptr
    };
    const Case cases[] = {
        {"default header", [](FileHeaderSpec&) {}, true, nullptr},
        {"wrong end magic is not checked", [](FileHeaderSpec& s) { s.magic_end = "XXXX"; }, true, nullptr},
        {"byte order and block size are not checked",
         [](FileHeaderSpec& s) { s.byte_order = 7; s.block_size = 0; }, true, nullptr},
        {"wrong fourth magic byte", [](FileHeaderSpec& s) { s.magic = "OBXE"; }, false, "Wrong data page magic number."},
        {"lower-case magic", [](FileHeaderSpec& s) { s.magic = "obxf"; }, false, "Wrong data page magic number."},
        {"wrong first magic byte", [](FileHeaderSpec& s) { s.magic = "XBXF"; }, false, "Wrong data page magic number."},
        {"patch plays no part", [](FileHeaderSpec& s) { s.version_patch = 65535; }, true, nullptr},
        {"older minor", [](FileHeaderSpec& s) { s.version_minor = 0; }, true, nullptr},
        {"newer minor",
         [](FileHeaderSpec& s) { s.version_minor = 8; }, false,
         "Version of data page 1.8.0 is incompatible with Ombrix version 1.22.1"},
        {"older major",
         [](FileHeaderSpec& s) { s.version_major = 0; }, false,
         "Version of data page 0.7.0 is incompatible with Ombrix version 1.22.1"},
        {"newer major",
         [](FileHeaderSpec& s) { s.version_major = 2; s.version_minor = 0; s.version_patch = 3; }, false,
         "Version of data page 2.0.3 is incompatible with Ombrix version 1.22.1"},
        {"file size one short",
         [](FileHeaderSpec& s) { s.file_size = 255; }, false, "Wrong data file size 255 is less then file header size 256"},
        {"file size zero",
         [](FileHeaderSpec& s) { s.file_size = 0; }, false, "Wrong data file size 0 is less then file header size 256"},
        {"file size exactly the header", [](FileHeaderSpec& s) { s.file_size = 256; }, true, nullptr},
        {"file size compared unsigned", [](FileHeaderSpec& s) { s.file_size = ~0ull; }, true, nullptr},
        {"magic reported before version",
         [](FileHeaderSpec& s) { s.magic = "OBXQ"; s.version_major = 9; s.file_size = 1; }, false,
         "Wrong data page magic number."},
        {"version reported before size",
         [](FileHeaderSpec& s) { s.version_minor = 9; s.file_size = 1; }, false,
         "Version of data page 1.9.0 is incompatible with Ombrix version 1.22.1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FileHeaderSpec spec;
        c.change(spec);
        const obx_data_file_header_t header = decoded(spec);
        LogCapture log;
        EXPECT_EQ(obx_data_file_header_validate(&header), c.valid);
        const std::vector<std::string> errors = log.at(3);
        if (c.message) {
            ASSERT_EQ(errors.size(), 1u) << log.all();
            EXPECT_EQ(errors[0], c.message);
        } else {
            EXPECT_TRUE(errors.empty()) << log.all();
        }
    }
}

TEST(DataFileHeader, ValidationOfNoHeaderFailsWithAMessage) {
    LogCapture log;
    EXPECT_FALSE(obx_data_file_header_validate(nullptr));
    EXPECT_EQ(log.at(3).size(), 1u);
}

// ---- printing -----------------------------------------------------------------------------

TEST(DataFileHeader, PrintGivesEveryLineByteForByte) {
    FileHeaderSpec spec;
    spec.version_patch = 3;
    spec.file_size = 8192;
    spec.counters_schema_id = kIdA;
    spec.event_schema_ids = {"0123456789abcdef0123456789ABCDEF", "", "", "", "", "", kIdA};
    const obx_data_file_header_t header = decoded(spec);
    const std::string zeros(32, '0');
    const std::string expected =
        "Data file header\n"
        " magic number         = OBXF\n"
        " version              = 1.7.3\n"
        " file size            = 8192\n"
        " source id            = node01\n"
        " source tag           = tag\n"
        " first timestamp      = 1700000000000000\n"
        " last timestamp       = 1700000060000000\n"
        " data block size      = 4096\n"
        " counters schema id   = 00112233445566778899aabbccddeeff\n"
        " schema id[0]         = 0123456789abcdef0123456789abcdef\n"
        " schema id[1]         = " + zeros + "\n"
        " schema id[2]         = " + zeros + "\n"
        " schema id[3]         = " + zeros + "\n"
        " schema id[4]         = " + zeros + "\n"
        " schema id[5]         = " + zeros + "\n"
        " schema id[6]         = 00112233445566778899aabbccddeeff\n"
        " byte order           = 0 (LE)\n"
        " end magic number     = obxf\n";
    EXPECT_EQ(capture([&](FILE* s) { obx_data_file_header_print(s, &header); }), expected);
}

TEST(DataFileHeader, PrintStaysInsideFieldsThatHaveNoTerminator) {
    struct Case {
        const char* name;
        std::function<void(FileHeaderSpec&)> change;
        std::vector<std::string> lines;  // lines that must appear whole
    };
    const Case cases[] = {
        {"full source id and tag",
         [](FileHeaderSpec& s) { s.source_id = std::string(64, 'a'); s.source_tag = std::string(16, 'b'); },
         {" source id            = " + std::string(64, 'a') + "\n", " source tag           = " + std::string(16, 'b') + "\n"}},
        {"magic with a zero byte is cut there and padded to four",
         [](FileHeaderSpec& s) { s.magic = std::string("OB\0F", 4); s.magic_end = std::string("\0bxf", 4); },
         {" magic number         =   OB\n", " end magic number     =     \n"}},
        {"any non-zero byte order is big-endian",
         [](FileHeaderSpec& s) { s.byte_order = 2; }, {" byte order           = 2 (BE)\n"}},
        {"patch printed whole",
         [](FileHeaderSpec& s) { s.version_major = 255; s.version_minor = 254; s.version_patch = 65535; },
         {" version              = 255.254.65535\n"}},
        {"huge file size printed unsigned",
         [](FileHeaderSpec& s) { s.file_size = ~0ull; }, {" file size            = 18446744073709551615\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FileHeaderSpec spec;
        c.change(spec);
        const obx_data_file_header_t header = decoded(spec);
        const std::string text = capture([&](FILE* s) { obx_data_file_header_print(s, &header); });
        for (const std::string& line : c.lines) EXPECT_NE(text.find(line), std::string::npos) << text;
    }
}

TEST(DataFileHeader, SchemaIdStringForEachSlotAndNoneAboveSix) {
    FileHeaderSpec spec;
    spec.event_schema_ids = {kIdA, "", "", "", "", "", "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"};
    const obx_data_file_header_t header = decoded(spec);
    const struct {
        unsigned index;
        const char* text;
    } cases[] = {
        {0, "00112233445566778899aabbccddeeff"},
        {1, "00000000000000000000000000000000"},
        {6, "ffffffffffffffffffffffffffffffff"},
        {7, nullptr},
        {UINT_MAX, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.index);
        char* text = obx_data_file_header_get_schema_id_string(&header, c.index);
        if (c.text) {
            ASSERT_NE(text, nullptr);
            EXPECT_STREQ(text, c.text);
        } else {
            EXPECT_EQ(text, nullptr);
        }
        std::free(text);
    }
}

// ---- block types and magics ---------------------------------------------------------------

TEST(BlockType, FourthByteAloneDecidesTheType) {
    const struct {
        std::string magic;
        uint32_t type;
    } cases[] = {
        {"OBXD", OBX_COUNTERS_BLOCK}, {"OBXE", OBX_EVENTS_BLOCK},   {"XXXE", OBX_EVENTS_BLOCK},
        {"OBXS", OBX_SCHEMAS_BLOCK},  {"OBXB", OBX_BLOB_BLOCK},     {"OBXP", OBX_PAGE_BLOCK},
        {"CNTX", OBX_CNTX_BLOCK},     {"OBXX", OBX_CNTX_BLOCK},     {"OBXZ", OBX_UNKNOWN_BLOCK},
        {"OBXY", OBX_UNKNOWN_BLOCK},  {"OBXA", OBX_UNKNOWN_BLOCK},  {"OBXC", OBX_UNKNOWN_BLOCK},
        {"OBXF", OBX_UNKNOWN_BLOCK},  {"OBXd", OBX_UNKNOWN_BLOCK},  {std::string("OBX\0", 4), OBX_UNKNOWN_BLOCK},
        {"OBX\xff", OBX_UNKNOWN_BLOCK}, {"OBX\x80", OBX_UNKNOWN_BLOCK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.magic);
        EXPECT_EQ(obx_block_type_get(reinterpret_cast<const uint8_t*>(c.magic.data())), c.type);
    }
}

TEST(BlockType, OnlySixLettersAreKnown) {
    int known = 0;
    for (int letter = 0; letter < 256; ++letter) {
        const uint8_t magic[4] = {'O', 'B', 'X', static_cast<uint8_t>(letter)};
        if (obx_block_type_get(magic) != OBX_UNKNOWN_BLOCK) ++known;
    }
    EXPECT_EQ(known, 6);
}

TEST(BlockType, NamesAndMagicsOfEveryType) {
    const struct {
        uint32_t type;
        const char* name;
        std::string magic;  // what obx_block_magic_set leaves in "????"
    } cases[] = {
        {OBX_COUNTERS_BLOCK, "OBX_COUNTERS_BLOCK", "OBXD"},
        {OBX_EVENTS_BLOCK, "OBX_EVENTS_BLOCK", "OBXE"},
        {OBX_SCHEMAS_BLOCK, "OBX_SCHEMAS_BLOCK", "OBXS"},
        {OBX_BLOB_BLOCK, "OBX_BLOB_BLOCK", "OBXB"},
        {OBX_UNKNOWN_BLOCK, "Unknown block", "????"},
        {OBX_PAGE_BLOCK, "OBX_PAGE_BLOCK", "OBXP"},
        {OBX_CNTX_BLOCK, "OBX_CNTX_BLOCK", "OBXX"},
        {7, "Unknown block", "????"},
        {UINT32_MAX, "Unknown block", "????"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        EXPECT_STREQ(obx_block_type_name(c.type), c.name);
        uint8_t block[5] = {'?', '?', '?', '?', 0xEE};
        obx_block_magic_set(block, c.type);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 4), c.magic);
        EXPECT_EQ(block[4], 0xEE);
        if (c.magic != "????") {
            EXPECT_EQ(obx_block_type_get(block), c.type);
        }
    }
}

TEST(BlockType, MagicEqualComparesAllFourBytes) {
    const struct {
        const char* a;
        const char* b;
        bool equal;
    } cases[] = {
        {"OBXE", "OBXE", true}, {"OBXE", "OBXD", false}, {"CNTX", "OBXX", false},
        {"OBXE", "ABXE", false}, {"OBXE", "OAXE", false}, {"OBXE", "OBYE", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " " + c.b);
        EXPECT_EQ(obx_magic_equal(reinterpret_cast<const uint8_t*>(c.a), reinterpret_cast<const uint8_t*>(c.b)), c.equal);
    }
}

// ---- block heads ---------------------------------------------------------------------------

TEST(BlockHeads, ReadersTakeFieldsAtTheirOffsetsAndWritersGiveTheSameBytes) {
    {
        SCOPED_TRACE("event block");
        const Bytes bytes = event_block(9, 0x0105, 200, {}, 0x0807060504030201ull);
        obx_event_block_head_t head;
        obx_event_block_head_read(bytes.data(), &head);
        EXPECT_EQ(head.timestamp, 0x0807060504030201ull);
        EXPECT_EQ(head.schema_index, 9);
        EXPECT_EQ(head.type_index, 0x0105);
        EXPECT_EQ(head.num_events, 200);
        Bytes written(OBX_EVENT_BLOCK_HEAD_SIZE, 0xEE);
        obx_event_block_head_write(written.data(), &head);
        EXPECT_EQ(written, bytes);
    }
    {
        SCOPED_TRACE("counters block");
        const Bytes bytes = counters_block(0x1122334455667788ull, {});
        obx_counters_block_head_t head;
        obx_counters_block_head_read(bytes.data(), &head);
        EXPECT_EQ(std::string(head.magic, 4), "OBXD");
        EXPECT_EQ(head.timestamp, 0x1122334455667788ull);
        Bytes written(OBX_COUNTERS_BLOCK_HEAD_SIZE, 0xEE);
        obx_counters_block_head_write(written.data(), &head);
        EXPECT_EQ(written, bytes);
    }
    {
        SCOPED_TRACE("blob block");
        const Bytes bytes = blob_block(77, {}, 0xA0B0C0D0E0F00010ull);
        obx_blob_block_head_t head;
        obx_blob_block_head_read(bytes.data(), &head);
        EXPECT_EQ(head.timestamp, 77u);
        EXPECT_EQ(head.data_size, 0xA0B0C0D0E0F00010ull);
        Bytes written(OBX_BLOB_BLOCK_HEAD_SIZE, 0xEE);
        obx_blob_block_head_write(written.data(), &head);
        EXPECT_EQ(written, bytes);
    }
    {
        SCOPED_TRACE("schemas block");
        SchemasBlockSpec spec;
        spec.ids = {kIdA};
        spec.block_size = 0x1234;
        spec.id_count = 0x0E0F;
        const Bytes bytes = schemas_block(spec);
        obx_schemas_block_head_t head;
        obx_schemas_block_head_read(bytes.data(), &head);
        EXPECT_EQ(head.block_size, 0x1234);
        EXPECT_EQ(head.id_count, 0x0E0F);
        Bytes written(OBX_SCHEMAS_BLOCK_IDS, 0xEE);
        obx_schemas_block_head_write(written.data(), &head);
        EXPECT_EQ(written, Bytes(bytes.begin(), bytes.begin() + OBX_SCHEMAS_BLOCK_IDS));
    }
}

TEST(BlockHeads, PrintersGiveTheirTextByteForByte) {
    const Bytes event = event_block(3, 0x0105, 17, {}, 5);
    const Bytes counters = counters_block(1700000000123456ull, {});
    const Bytes blob = blob_block(42, {1, 2, 3});
    const struct {
        const char* name;
        std::function<void(FILE*)> print;
        std::string text;
    } cases[] = {
        {"event block (all 16 bits of the type index)",
         [&](FILE* s) { obx_event_block_print(s, event.data()); },
         "Event header\n"
         " magic number         = OBXE\n"
         " schema index         = 3\n"
         " type index           = 261\n"
         " number of events     = 17\n"},
        {"counters block", [&](FILE* s) { obx_counters_block_print(s, counters.data()); },
         "Data block\n"
         " magic number         = OBXD\n"
         " last timestamp       = 1700000000123456\n"},
        {"blob block", [&](FILE* s) { obx_blob_block_print(s, blob.data()); },
         "Blob block\n"
         " magic number         = OBXB\n"
         " timestamp            = 42\n"
         " data size            = 3\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(capture(c.print), c.text);
    }
}

TEST(BlockHeads, LayoutPrintersGiveTheFieldTables) {
    const std::string head = "Field                       Offset    Size\n";
    const struct {
        const char* name;
        std::function<void(FILE*)> print;
        std::string text;
    } cases[] = {
        {"event block", obx_event_block_print_layout_to,
         head +
             " magic                      0         4\n"
             " timestamp                  4         8\n"
             " schema_index               12        1\n"
             " type_index                 13        2\n"
             " num_events                 15        1\n"},
        {"counters block, values without a size", obx_counters_block_print_layout_to,
         head +
             " header.magic               0         4\n"
             " padding                    4         4\n"
             " timestamp                  8         8\n"
             " values[]                   16      \n"},
        {"blob block", obx_blob_block_print_layout_to,
         head +
             " header.magic               0         4\n"
             " timestamp                  4         8\n"
             " data_size                  12        8\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(capture(c.print), c.text);
    }
}

TEST(BlockHeads, FileHeaderLayoutRowsTileTheWholeHeader) {
    const std::string text = capture(obx_data_file_header_print_layout_to);
    ASSERT_EQ(text.compare(0, 43, "Field                       Offset    Size\n"), 0) << text;
    // Every row starts where the previous one ended, and the last ends at 256.
    size_t position = 43;
    unsigned long expected_offset = 0;
    int rows = 0;
    while (position < text.size()) {
        const size_t end = text.find('\n', position);
        ASSERT_NE(end, std::string::npos);
        const std::string line = text.substr(position, end - position);
        char name[64];
        unsigned long offset = 0, size = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), " %63s %lu %lu", name, &offset, &size), 3) << line;
        EXPECT_EQ(offset, expected_offset) << line;
        EXPECT_EQ(line.size(), 38u + std::to_string(size).size()) << line;
        expected_offset = offset + size;
        position = end + 1;
        ++rows;
    }
    EXPECT_EQ(rows, 13);
    EXPECT_EQ(expected_offset, OBX_FILE_HEADER_SIZE);
    EXPECT_NE(text.find(" event_schema_ids           132       112\n"), std::string::npos) << text;
}

// ---- encoded page frame --------------------------------------------------------------------

TEST(PageFrame, SizesAndTrailerAreCheckedAgainstTheBytesThere) {
    const Bytes frame = page_frame(Bytes(100, 'a'));
    obx_page_frame_t info;
    ASSERT_TRUE(obx_page_frame_read(frame.data(), frame.size(), &info));
    EXPECT_EQ(info.header_size, 24 + 6 + 3);
    EXPECT_EQ(info.compression_type, 'G');
    EXPECT_EQ(obx_page_frame_size(&info), frame.size());
    EXPECT_EQ(obx_page_frame_stream_end(&info), frame.size() - 4);

    const struct {
        const char* name;
        size_t available;
        bool complete;
    } cases[] = {
        {"whole frame", frame.size(), true},
        {"last trailer byte missing", frame.size() - 1, false},
        {"trailer missing", frame.size() - 4, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(obx_page_frame_has_trailer(frame.data(), c.available, &info), c.complete);
    }

    FrameSpec wrong;
    wrong.trailer = "obxq";
    const Bytes bad = page_frame(Bytes(10, 'b'), wrong);
    ASSERT_TRUE(obx_page_frame_read(bad.data(), bad.size(), &info));
    EXPECT_FALSE(obx_page_frame_has_trailer(bad.data(), bad.size(), &info));
}

TEST(PageFrame, ShortInputAndHugeStreamSizesAreRefused) {
    const Bytes frame = page_frame(Bytes(10, 'a'));
    obx_page_frame_t info;
    EXPECT_FALSE(obx_page_frame_read(frame.data(), OBX_PAGE_FRAME_MIN_READ - 1, &info));
    EXPECT_TRUE(obx_page_frame_read(frame.data(), OBX_PAGE_FRAME_MIN_READ, &info));

    // A stream size near 4 GiB must not wrap the frame's end around to a small number.
    FrameSpec lying;
    lying.header_size = 255;
    lying.stream_size = 0xFFFFFFFFu;
    const Bytes huge = page_frame(Bytes(10, 'a'), lying);
    ASSERT_TRUE(obx_page_frame_read(huge.data(), huge.size(), &info));
    EXPECT_EQ(obx_page_frame_stream_end(&info), 4ull + 255 + 0xFFFFFFFFull);
    EXPECT_FALSE(obx_page_frame_has_trailer(huge.data(), huge.size(), &info));
}
