# Installs the build tree into a temporary prefix, moves the installed tree
# elsewhere (it must not depend on its prefix), then builds and runs a client
# there with pkg-config and with find_package, and runs the installed tool.
# -D BUILD_DIR, SOURCE_DIR (tests/install), LIBDIR, BINDIR, MANDIR, CC, GENERATOR
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ${out}")
  set(out "${out}" PARENT_SCOPE)
endfunction()

execute_process(COMMAND mktemp -d /tmp/tcamwrap-install-XXXXXX OUTPUT_VARIABLE work
                OUTPUT_STRIP_TRAILING_WHITESPACE)
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${work}/staged)
file(RENAME ${work}/staged ${work}/moved)
set(prefix ${work}/moved)
foreach(f ${LIBDIR}/pkgconfig/tcamwrap.pc ${LIBDIR}/pkgconfig/tcamwrap-sim.pc
          ${LIBDIR}/cmake/tcamwrap/tcamwrapConfig.cmake ${MANDIR}/man1/tcamwrap-sim.1
          include/tcamwrap/tcamwrap_api.h include/tcamwrap/sim/sim_card.h)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# pkg-config
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run("pkg-config" pkg-config --cflags --libs tcamwrap tcamwrap-sim)
separate_arguments(flags UNIX_COMMAND "${out}")
if(NOT "${out}" MATCHES "-L${prefix}/${LIBDIR}")
  message(FATAL_ERROR "pkg-config does not name the moved tree: ${out}")
endif()
run("cc" ${CC} ${SOURCE_DIR}/client.c ${flags} -Wl,-rpath,${prefix}/${LIBDIR}
    -o ${work}/client-pkgconfig)

# find_package
run("configure" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${work}/build -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_PREFIX_PATH=${prefix})
run("build" ${CMAKE_COMMAND} --build ${work}/build)

foreach(client client-pkgconfig build/client)
  set(ENV{TCAMWRAP_SIM_STATE} ${work}/state-${client})
  set(ENV{TCAMWRAP_SIM_PROFILE} "insts=1,fib=1024,acli=256,aclo=256")
  run(${client} ${work}/${client})
  if(NOT out MATCHES "client: loc 7 at sloc")
    message(FATAL_ERROR "${client} said: ${out}")
  endif()
endforeach()

# The installed tool, a client of its own card.
set(ENV{TCAMWRAP_SIM_STATE} ${work}/state-tool)
set(tool ${prefix}/${BINDIR}/tcamwrap-sim)
run("tcamwrap-sim --version" ${tool} --version)
run("tcamwrap-sim card create" ${tool} card create)
run("tcamwrap-sim load" ${tool} load --generate 300 --acl 20 --seed 1)
run("tcamwrap-sim check" ${tool} check)
file(REMOVE_RECURSE ${work})
