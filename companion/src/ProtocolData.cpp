#include "ProtocolData.h"

ProtocolData::ProtocolData() = default;
ProtocolData::~ProtocolData() = default;
ProtocolData::ProtocolData(const ProtocolData &other) = default;
ProtocolData &ProtocolData::operator=(const ProtocolData &other) = default;
ProtocolData::ProtocolData(ProtocolData &&other) noexcept = default;
ProtocolData &ProtocolData::operator=(ProtocolData &&other) noexcept = default;
