#include "RpcProg.h"

std::uint32_t CRpcProg::GetVersion() { return ANY; }

std::uint32_t CRpcProg::GetMaxSupportProc() { return ANY; }
