// dlpack.h: the structures of the DLPack protocol, versions 0 and 1 (github.com/dmlc/dlpack).
#pragma once

#include <cstdint>

namespace ornik::python::dlpack {

struct Device {
    std::int32_t type;
    std::int32_t id;
};
inline constexpr std::int32_t cpu = 1;
inline constexpr std::int32_t host_pinned = 3;

struct DataType {
    std::uint8_t code;
    std::uint8_t bits;
    std::uint16_t lanes;
};

struct Array {
    void* data;
    Device device;
    std::int32_t ndim;
    DataType dtype;
    std::int64_t* shape;
    std::int64_t* strides;  // in elements; null for row-major
    std::uint64_t byte_offset;
};

struct Managed {
    static constexpr const char* name = "dltensor";
    static constexpr const char* used_name = "used_dltensor";

    Array array;
    void* context;
    void (*deleter)(Managed*);
};

struct Version {
    std::uint32_t major;
    std::uint32_t minor;
};

inline constexpr std::uint64_t read_only = 1;
inline constexpr std::uint64_t copied = 2;

struct ManagedVersioned {
    static constexpr const char* name = "dltensor_versioned";
    static constexpr const char* used_name = "used_dltensor_versioned";

    Version version;
    void* context;
    void (*deleter)(ManagedVersioned*);
    std::uint64_t flags;
    Array array;
};

}  // namespace ornik::python::dlpack
