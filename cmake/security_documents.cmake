# Writes sbom.cdx.json and vex.cdx.json (CycloneDX 1.5) for the programs that were built: their
# libraries, and the known vulnerabilities of their script engine. It is a script in CMake's language,
# because every build has this interpreter.
#
# cmake -DPROGRAMS=a|b -DVERSION=v -DENGINE_VERSION=v -DENGINE_HEADER=quickjs.h -DOBJDUMP=objdump
#       -DHOLES=engine_holes.json -DCOPYRIGHT=packaging/debian/copyright -DOUTPUT=folder [-DFOREIGN=ON]
#       [-DTODAY=2026-12-31] -P security_documents.cmake
#
# FOREIGN: the programs are of another architecture, so the versions of packages on this machine are
# not used. HOLES lists the known vulnerabilities of the engine. If one of them is not fixed,
# unreachable or in triage for the engine's version, the script fails. Warns if the engine is older
# than half a year.
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" PROGRAMS "${PROGRAMS}")

# Sets ${out} to `text` as a JSON string.
function(quoted out text)
  string(REPLACE "\\" "\\\\" text "${text}")
  string(REPLACE "\"" "\\\"" text "${text}")
  set(${out} "\"${text}\"" PARENT_SCOPE)
endfunction()

# put(VARIABLE "text" MEMBER...): sets a member of the JSON text in VARIABLE to a string.
macro(put variable text)
  quoted(json_text "${text}")
  string(JSON ${variable} SET "${${variable}}" ${ARGN} "${json_text}")
endmacro()

# append(VARIABLE json MEMBER...): appends to the array that MEMBER... names.
macro(append variable json)
  string(JSON json_length LENGTH "${${variable}}" ${ARGN})
  string(JSON ${variable} SET "${${variable}}" ${ARGN} ${json_length} "${json}")
endmacro()

# Sets ${out} to the installed version of a Debian package. ${out} is empty if the package is not
# installed, or if there is no dpkg.
function(package_version out package)
  execute_process(COMMAND dpkg-query -W -f "\${Version}" "${package}"
    OUTPUT_VARIABLE version ERROR_QUIET RESULT_VARIABLE failed)
  if(failed)
    set(version "")
  endif()
  set(${out} "${version}" PARENT_SCOPE)
endfunction()

# Sets ${out} to the package URL of a version of a Debian package.
function(package_url out package version)
  string(REPLACE "+" "%2B" version "${version}")
  string(REPLACE ":" "%3A" version "${version}")
  set(${out} "pkg:deb/debian/${package}@${version}" PARENT_SCOPE)
endfunction()

# Sets ${out} to a component; the package may be empty.
function(component out type name version package scope)
  set(json "{}")
  put(json "${type}" type)
  put(json "${name}" bom-ref)
  put(json "${name}" name)
  put(json "${scope}" scope)
  if(version)
    put(json "${version}" version)
  endif()
  if(package AND version)
    package_url(url "${package}" "${version}")
    put(json "${url}" purl)
  endif()
  set(${out} "${json}" PARENT_SCOPE)
endfunction()

# Sets ${out} to the sonames of the libraries that a program is linked with, and of the libraries
# that it maps on demand. The program contains the names of the mapped libraries as texts.
function(needed out program)
  execute_process(COMMAND "${OBJDUMP}" -p "${program}" OUTPUT_VARIABLE headers
    COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "NEEDED +[^\n ]+" entries "${headers}")
  list(TRANSFORM entries REPLACE "NEEDED +" "")
  file(STRINGS "${program}" on_demand REGEX "^lib[a-z0-9_+-]+\\.so\\.[0-9]+$")
  string(REGEX MATCH "SONAME +[^\n ]+" own_name "${headers}")
  string(REGEX REPLACE "SONAME +" "" own_name "${own_name}")
  list(REMOVE_ITEM on_demand "${own_name}")
  list(APPEND entries ${on_demand})
  list(REMOVE_DUPLICATES entries)
  set(${out} "${entries}" PARENT_SCOPE)
endfunction()

# Sets ${out} to the component for the engine. If a package of the distribution owns the header, the
# component is that package. Otherwise the component is upstream's release, which the build
# compiles.
function(engine_component out)
  component(json library quickjs-ng "${ENGINE_VERSION}" "" required)
  execute_process(COMMAND dpkg-query -S "${ENGINE_HEADER}" OUTPUT_VARIABLE owner ERROR_QUIET
    RESULT_VARIABLE foreign)
  if(NOT foreign AND owner MATCHES "^([^:, \n]+)")
    set(package "${CMAKE_MATCH_1}")
    package_version(version "${package}")
    package_url(url "${package}" "${version}")
  else()
    set(url "pkg:generic/quickjs-ng@${ENGINE_VERSION}")
  endif()
  put(json "${url}" purl)
  set(${out} "${json}" PARENT_SCOPE)
endfunction()

function(write_sbom)
  set(sbom "{\"bomFormat\":\"CycloneDX\",\"specVersion\":\"1.5\",\"version\":1,\"metadata\":{},
    \"components\":[],\"dependencies\":[]}")
  component(own application proxymanagerd "${VERSION}" "" required)
  string(JSON sbom SET "${sbom}" metadata component "${own}")
  set(libraries "")
  if(NOT FOREIGN)
    file(GET_RUNTIME_DEPENDENCIES EXECUTABLES ${PROGRAMS}
      RESOLVED_DEPENDENCIES_VAR libraries UNRESOLVED_DEPENDENCIES_VAR ignored
      CONFLICTING_DEPENDENCIES_PREFIX conflicts)
  endif()

  # The shared libraries that the programs call, each with the package that it comes from.
  set(all "")
  foreach(program ${PROGRAMS})
    needed(sonames "${program}")
    list(APPEND all ${sonames})
  endforeach()
  list(REMOVE_DUPLICATES all)
  list(SORT all)
  set(files_of_all "")
  foreach(soname ${all})
    set(files ${libraries})
    string(REGEX REPLACE "([.+])" "\\\\\\1" pattern "${soname}")
    list(FILTER files INCLUDE REGEX "/${pattern}$")
    foreach(library ${libraries})  # libraries on demand are in the same folder
      get_filename_component(folder "${library}" DIRECTORY)
      if(NOT files AND EXISTS "${folder}/${soname}")
        set(files "${folder}/${soname}")
      endif()
    endforeach()
    if(files)
      list(GET files 0 file)
      file(REAL_PATH "${file}" file)
      # The folder is part of the name, because the libraries of other architectures have the same
      # file names.
      string(REGEX MATCH "[^/]+/[^/]+$" place_of_${soname} "${file}")
      # dpkg knows some libraries below /lib, which is a link to /usr/lib.
      string(REGEX REPLACE "^/usr/" "/" short "${file}")
      list(APPEND files_of_all "${file}" "${short}")
    endif()
  endforeach()
  execute_process(COMMAND dpkg-query -S ${files_of_all} OUTPUT_VARIABLE owners ERROR_QUIET)
  foreach(soname ${all})
    set(package "")
    set(version "")
    string(REGEX REPLACE "([.+])" "\\\\\\1" pattern "${place_of_${soname}}")
    if(pattern AND "\n${owners}" MATCHES "\n([^:, \n]+)[^\n]*/${pattern}\n")
      set(package "${CMAKE_MATCH_1}")
      package_version(version "${package}")
    endif()
    component(json library "${soname}" "${version}" "${package}" required)
    append(sbom "${json}" components)
  endforeach()

  # The third-party code that is compiled into the programs.
  file(STRINGS "${COPYRIGHT}" linked REGEX "^Files: linked/")
  list(TRANSFORM linked REPLACE "^Files: linked/([^ ]+).*" "\\1")
  list(REMOVE_ITEM linked quickjs-ng)
  foreach(name ${linked})
    package_version(version "${name}")
    component(json library "${name}" "${version}" "${name}" required)
    append(sbom "${json}" components)
  endforeach()
  engine_component(engine)
  released(date)
  set(property "{\"name\":\"proxymanagerd:released\"}")
  put(property "${date}" value)
  string(JSON engine SET "${engine}" properties "[${property}]")
  append(sbom "${engine}" components)

  foreach(program ${PROGRAMS})
    get_filename_component(name "${program}" NAME)
    component(json application "${name}" "${VERSION}" "" required)
    append(sbom "${json}" components)
    needed(sonames "${program}")
    if(name MATCHES "^proxymanager-(pac-worker|workbench)$")
      list(APPEND sonames quickjs-ng)
    endif()
    set(dependency "{\"dependsOn\":[]}")
    put(dependency "${name}" ref)
    foreach(soname ${sonames})
      append(dependency "\"${soname}\"" dependsOn)
    endforeach()
    append(sbom "${dependency}" dependencies)
  endforeach()
  file(WRITE "${OUTPUT}/sbom.cdx.json" "${sbom}\n")
endfunction()

function(write_vex)
  set(vex "{\"bomFormat\":\"CycloneDX\",\"specVersion\":\"1.5\",\"version\":1,\"metadata\":{},
    \"components\":[],\"vulnerabilities\":[]}")
  component(own application proxymanagerd "${VERSION}" "" required)
  string(JSON vex SET "${vex}" metadata component "${own}")
  engine_component(engine)
  append(vex "${engine}" components)
  file(READ "${HOLES}" holes)
  string(JSON count LENGTH "${holes}" holes)
  math(EXPR last "${count} - 1")
  foreach(index RANGE ${last})
    string(JSON id GET "${holes}" holes ${index} id)
    string(JSON source GET "${holes}" holes ${index} source)
    string(JSON description GET "${holes}" holes ${index} description)
    string(JSON proof ERROR_VARIABLE untried GET "${holes}" holes ${index} proof)
    string(JSON fixed ERROR_VARIABLE none GET "${holes}" holes ${index} fixed_in)
    string(JSON state ERROR_VARIABLE judged GET "${holes}" holes ${index} state)
    string(JSON justification ERROR_VARIABLE unjustified GET "${holes}" holes ${index} justification)
    set(hole "{\"source\":{},\"analysis\":{},\"affects\":[{\"ref\":\"quickjs-ng\"}]}")
    put(hole "${id}" id)
    put(hole "${source}" source name)
    put(hole "${description}" description)
    if(NOT judged AND state STREQUAL "in_triage")
      string(JSON detail GET "${holes}" holes ${index} detail)
      put(hole "in_triage" analysis state)
      put(hole "${detail}" analysis detail)
      message(STATUS "${id} of the script engine is in triage; see ${HOLES}")
    elseif(NOT unjustified)
      string(JSON detail GET "${holes}" holes ${index} detail)
      put(hole "not_affected" analysis state)
      put(hole "${justification}" analysis justification)
      put(hole "${detail} Tried by ${proof}." analysis detail)
    elseif(NOT none AND NOT ENGINE_VERSION VERSION_LESS fixed)
      put(hole "resolved" analysis state)
      put(hole "Fixed in QuickJS-NG ${fixed} at the latest. Tried by ${proof}." analysis detail)
    else()
      message(FATAL_ERROR "QuickJS-NG ${ENGINE_VERSION} has ${id} (${description}), which is neither "
                          "fixed in it nor out of a script's reach; see ${HOLES}")
    endif()
    append(vex "${hole}" vulnerabilities)
  endforeach()
  file(WRITE "${OUTPUT}/vex.cdx.json" "${vex}\n")
endfunction()

# Sets ${out} to the day on which the engine was released, from HOLES. If the version is not in that
# list, the result is the date of the header file. Packages and upstream's tarballs keep this date;
# a copy or a repository may have a later date.
function(released out)
  file(READ "${HOLES}" holes)
  string(JSON date ERROR_VARIABLE unknown GET "${holes}" releases "${ENGINE_VERSION}")
  if(unknown)
    file(TIMESTAMP "${ENGINE_HEADER}" date "%Y-%m-%d" UTC)
  endif()
  set(${out} "${date}" PARENT_SCOPE)
endfunction()

# Sets ${out} to the number of days from a fixed, arbitrary day to the date YYYY-MM-DD.
function(day_number out date)
  string(REGEX MATCH "^([0-9]+)-0?([0-9]+)-0?([0-9]+)$" matched "${date}")
  if(NOT matched)
    message(FATAL_ERROR "'${date}' is no date of the form YYYY-MM-DD")
  endif()
  # Here, a year begins in March, so the leap day is its last day.
  math(EXPR march "(${CMAKE_MATCH_2} + 9) % 12")
  math(EXPR year "${CMAKE_MATCH_1} - ${march} / 10")
  math(EXPR days "365 * ${year} + ${year} / 4 - ${year} / 100 + ${year} / 400 +
    (${march} * 306 + 5) / 10 + ${CMAKE_MATCH_3}")
  set(${out} ${days} PARENT_SCOPE)
endfunction()

function(warn_of_age)
  set(today "${TODAY}")
  if(NOT today)
    # Reproducible builds set this variable to the time of the source, which does not change while
    # the engine gets older.
    unset(ENV{SOURCE_DATE_EPOCH})
    string(TIMESTAMP today "%Y-%m-%d" UTC)
  endif()
  released(date)
  day_number(now "${today}")
  day_number(then "${date}")
  math(EXPR days "${now} - ${then}")
  if(days GREATER 183)
    message(WARNING "QuickJS-NG ${ENGINE_VERSION} of ${date} is ${days} days old; look for a newer "
                    "release")
  endif()
endfunction()

file(MAKE_DIRECTORY "${OUTPUT}")
write_vex()
write_sbom()
warn_of_age()
