from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, get, rmdir
from conan.tools.gnu import PkgConfigDeps

required_conan_version = ">=2.0"


class ZelvoConan(ConanFile):
    name = "zelvo"
    description = "In-process message bus: named nodes, publish and subscribe, calls"
    license = "MIT"
    topics = ("message-bus", "publish-subscribe", "in-process")
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False], "fPIC": [True, False]}
    default_options = {"shared": True, "fPIC": True}

    def configure(self):
        if self.options.shared:
            self.options.rm_safe("fPIC")

    def layout(self):
        cmake_layout(self, src_folder="src")

    def requirements(self):
        self.requires("cjson/[>=1.7.15 <2]")

    def build_requirements(self):
        self.tool_requires("cmake/[>=3.21]")
        self.tool_requires("pkgconf/[>=2.0 <3]")

    def validate(self):
        check_min_cppstd(self, 20)
        if self.settings.os != "Linux":
            raise ConanInvalidConfiguration("built for Linux only; a zip with a DLL is there for Windows")

    def source(self):
        get(self, **self.conan_data["sources"][self.version], strip_root=True)

    def generate(self):
        toolchain = CMakeToolchain(self)
        for part in ("TESTS", "EXAMPLES"):
            toolchain.cache_variables[f"ZELVO_BUILD_{part}"] = False
        for option in ("ZELVO_LTO", "ZELVO_INSTALL_DOCS"):
            toolchain.cache_variables[option] = False
        toolchain.generate()
        PkgConfigDeps(self).generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, f"{self.package_folder}/licenses")
        CMake(self).install()
        rmdir(self, f"{self.package_folder}/lib/cmake")
        rmdir(self, f"{self.package_folder}/lib/pkgconfig")

    def package_info(self):
        self.cpp_info.libs = ["zelvo"]
        self.cpp_info.set_property("cmake_file_name", "Zelvo")
        self.cpp_info.set_property("cmake_target_name", "Zelvo::zelvo")
        self.cpp_info.set_property("pkg_config_name", "zelvo")
        self.cpp_info.system_libs = ["pthread"]
        if not self.options.shared:
            self.cpp_info.system_libs += ["stdc++", "m"]
