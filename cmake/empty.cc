// Anchor for libkelobpf.so, whose code comes from the module archives.
