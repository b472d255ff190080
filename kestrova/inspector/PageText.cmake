# page.html as a raw literal, for the #include within Page.cpp.
file(READ ${page} html)
string(FIND "${html}" ")kestrova-page\"" end)
if(NOT end EQUAL -1)
  message(FATAL_ERROR "${page} holds the mark that ends the literal")
endif()
file(WRITE ${text} "R\"kestrova-page(${html})kestrova-page\"\n")
