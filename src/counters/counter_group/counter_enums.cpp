#include "counters/counter_group/counter_enums.h"

const obx_name_table_t obx_counter_data_type_names[] = {
    {OBX_COUNTER_DATA_TYPE_UNDEFINED, "Undefined"},
    {OBX_COUNTER_DATA_TYPE_UINT64, "UINT64"},
    {OBX_COUNTER_DATA_TYPE_FP64, "FP64"},
    {OBX_COUNTER_DATA_TYPE_BIT64, "BIT64"},
    {OBX_COUNTER_DATA_TYPE_INT64, "INT64"},
    {OBX_COUNTER_DATA_TYPE_STRING, "STRING"},
    {0, nullptr},
};

const obx_name_table_t obx_counter_granularity_names[] = {
    {OBX_COUNTER_GRANULARITY_NODE, "NODE"},
    {OBX_COUNTER_GRANULARITY_CPU, "CPU"},
    {OBX_COUNTER_GRANULARITY_PACKAGE, "PACKAGE"},
    {0, nullptr},
};

const obx_name_table_t obx_counter_counting_type_names[] = {
    {OBX_COUNTER_COUNTING_TYPE_ABSOLUTE, "ABSOLUTE"},
    {OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM, "RUNNING_SUM"},
    {0, nullptr},
};

const char* obx_counter_data_type_to_string(int32_t data_type)
{
    return obx_enum_to_string(obx_counter_data_type_names, data_type);
}

int32_t obx_counter_data_type_from_string(const char* text)
{
    return obx_enum_from_string(obx_counter_data_type_names, text);
}

const char* obx_counter_granularity_to_string(int32_t granularity)
{
    return obx_enum_to_string(obx_counter_granularity_names, granularity);
}

int32_t obx_counter_granularity_from_string(const char* text)
{
    return obx_enum_from_string(obx_counter_granularity_names, text);
}

const char* obx_counter_counting_type_to_string(int32_t counting_type)
{
    return obx_enum_to_string(obx_counter_counting_type_names, counting_type);
}

int32_t obx_counter_counting_type_from_string(const char* text)
{
    return obx_enum_from_string(obx_counter_counting_type_names, text);
}

uint32_t obx_counter_data_type_size(int32_t data_type, uint32_t length)
{
    return data_type == OBX_COUNTER_DATA_TYPE_STRING ? length : 8u;
}
