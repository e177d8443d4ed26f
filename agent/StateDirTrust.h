#pragma once
// StateDirTrust: the agent maps, overwrites and renames what it finds in its state directory, and modctl
// shows it to operators, so nobody but the agent's own user may decide what is there. Checked the way sshd
// checks a home directory before it trusts the keys in it:
// - the directory is a real directory (not a symlink), owned by the agent's user, writable by nobody else;
// - every entry in it is no symlink, is owned by the agent's user and is writable by nobody else (the control
//   socket excepted: its group may write to it, which is how the group is let in);
// - every directory above it is owned by root or the agent's user and is writable by nobody else, unless it
//   has the sticky bit (like /dev/shm and /tmp), so nobody can move the state directory away and put
//   another in its place.
// A missing state directory is made with mode 0750 (the group may reach the control socket, nobody else may
// look in); directories above it are made as mkdir -p would.

#include <string>

namespace ModAgent {

// Empty when the directory can be trusted (made first when missing); else one message naming the path, the
// fault and how to fix it.
std::string stateDirTrust(std::string const& dir);

}  // namespace ModAgent
