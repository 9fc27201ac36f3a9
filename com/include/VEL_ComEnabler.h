/// @file
#ifndef COM_INCLUDE_VEL_COMENABLER_H
#define COM_INCLUDE_VEL_COMENABLER_H

/// VEL_ComEnabler: brackets an application's use of the network with one object: its constructor
/// calls VEL_ComTools::Initialize, its destructor VEL_ComTools::Cleanup. The library itself
/// creates none.
///
/// Thread safety: distinct objects are independent.
class VEL_ComEnabler {
public:
    VEL_ComEnabler();
    ~VEL_ComEnabler();
    VEL_ComEnabler(const VEL_ComEnabler&) = delete;
    VEL_ComEnabler& operator=(const VEL_ComEnabler&) = delete;
};

#endif  // COM_INCLUDE_VEL_COMENABLER_H
