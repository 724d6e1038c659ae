# cmake -DHELPER=<path of tessarin-action> -P RecordHelperDigest.cmake
# Writes <HELPER>.sha256: the helper's SHA-256 in lower-case hexadecimal, one line. The
# handoff server accepts only a helper whose bytes still have this digest.
file(SHA256 "${HELPER}" digest)
file(WRITE "${HELPER}.sha256" "${digest}\n")
