/// What the board resource handler told of the unit and of the container that it sits in.
#pragma once

#include <string>

/// Opaque texts: the server hands them on and understands the product name's first letters alone. A text that
/// was told once stays until it is told anew; the flags speak of the last answer only.
struct ProductInfo {
    std::string pidField1;
    std::string productName;
    std::string pidField3;
    std::string pidField4;
    std::string pidField5;
    std::string extendedMarketName;
    bool isComplete{false}; ///< all texts but the extended market name were told
    bool hasExtendedMarketName{false};

    /// A unit of the product family that some clients know under another name.
    [[nodiscard]] bool isKpx() const { return productName.starts_with("KPX"); }

    bool operator==(const ProductInfo&) const = default;
};

/// The same for the container.
struct ContainerInfo {
    std::string pidField1;
    std::string containerName;
    std::string pidField3;
    std::string pidField4;
    std::string pidField5;
    bool isComplete{false}; ///< all texts were told

    bool operator==(const ContainerInfo&) const = default;
};
