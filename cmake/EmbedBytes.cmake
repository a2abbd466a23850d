# cmake -DINPUT=FILE -DOUTPUT=FILE.cpp -DHEADER=NAME -DNAMESPACE=NAME -DSYMBOL=NAME -P EmbedBytes.cmake
# Writes the bytes of a file as an array SYMBOL and its length SYMBOLSize.
file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)"
  "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT} "#include \"${HEADER}\"

namespace ${NAMESPACE} {

const unsigned char ${SYMBOL}[] = {
${bytes}
};
const std::size_t ${SYMBOL}Size = sizeof ${SYMBOL};

}  // namespace ${NAMESPACE}
")
