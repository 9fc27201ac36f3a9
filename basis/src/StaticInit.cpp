#include "StaticInit.h"

#include "BufferMgr.h"

namespace basis {

std::atomic<unsigned long> StaticInit::_Count{0};

StaticInit::StaticInit() {
    _Count.fetch_add(1);
}

StaticInit::~StaticInit() {
    if (_Count.fetch_sub(1) == 1) {
        BufferMgr::TrimDefault();
    }
}

}  // namespace basis
