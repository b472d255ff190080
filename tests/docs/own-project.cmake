# A project of somebody's own, from the blocks of the page: configures, and compiles its program.
set(folder ${blocks}/own-project)
file(REMOVE_RECURSE ${folder})
file(MAKE_DIRECTORY ${folder}/first)
file(CREATE_LINK ${source} ${folder}/kestrova-rtc SYMBOLIC)
configure_file(${blocks}/cmake-1.cmake ${folder}/first/CMakeLists.txt COPYONLY)
configure_file(${blocks}/cpp-1.cpp ${folder}/first/main.cpp COPYONLY)
execute_process(
  COMMAND ${CMAKE_COMMAND} -G Ninja -S ${folder}/first -B ${folder}/build
    -D CMAKE_CXX_COMPILER=${compiler}
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_COMMAND} --build ${folder}/build --target CMakeFiles/first.dir/main.cpp.o
  COMMAND_ERROR_IS_FATAL ANY)
