// The installed library is the components' archives linked whole; this file gives the target a
// source of its own, as a library target must have.
