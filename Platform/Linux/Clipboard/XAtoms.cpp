#include "Platform/Linux/Clipboard/XAtoms.h"

namespace velmora {

xcb_atom_t XAtoms::of(const std::string& name) {
    const auto known = atoms_.find(name);
    if (known != atoms_.end()) return known->second;
    const auto reply = connection_.reply(
        xcb_intern_atom_reply,
        xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data()));
    if (!reply) return XCB_ATOM_NONE;
    names_[reply->atom] = name;
    return atoms_[name] = reply->atom;
}

std::vector<std::string> XAtoms::namesOf(std::span<const xcb_atom_t> atoms) {
    std::map<xcb_atom_t, xcb_get_atom_name_cookie_t> asked;  // all at once, then all answers
    for (const xcb_atom_t atom : atoms) {
        if (!names_.contains(atom) && !asked.contains(atom))
            asked.emplace(atom, xcb_get_atom_name(connection_, atom));
    }
    for (const auto& [atom, cookie] : asked) {
        const auto reply = connection_.reply(xcb_get_atom_name_reply, cookie);
        if (!reply) continue;
        names_[atom].assign(xcb_get_atom_name_name(reply.get()),
                            static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get())));
    }
    std::vector<std::string> names;
    for (const xcb_atom_t atom : atoms) {
        if (const auto known = names_.find(atom); known != names_.end()) names.push_back(known->second);
    }
    return names;
}

}  // namespace velmora
