#include "PortBase.h"

PortBase::PortBase()
    : QObject(nullptr)
{
}

PortBase::~PortBase() = default;
