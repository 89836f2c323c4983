#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// Names and numbers of atoms, each asked for once. Lives on the thread of its connection.
class XAtoms {
public:
    explicit XAtoms(const XConnection& connection) : connection_(connection) {}

    xcb_atom_t of(const std::string& name);
    /// In their order; what is no atom is left out.
    std::vector<std::string> namesOf(std::span<const xcb_atom_t> atoms);

private:
    const XConnection& connection_;
    std::map<std::string, xcb_atom_t> atoms_;
    std::map<xcb_atom_t, std::string> names_;
};

}  // namespace velmora
