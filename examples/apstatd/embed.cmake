# Writes the bytes of the file INPUT to OUTPUT, as the definitions that page.h declares.

file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)" "\t\\1\n"
	bytes "${bytes}") # sixteen to a line
file(WRITE ${OUTPUT} "/* Generated from page.html. */
#include \"examples/apstatd/page.h\"

const unsigned char page[] = {
${bytes}
};
const int32_t page_length = sizeof page;
")
