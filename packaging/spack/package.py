from spack.package import *


class Kestrix(CMakePackage, CudaPackage):
    """Particle picker for cryo-electron microscopy: FFT template matching over all in-plane angles, with ice detection."""

    # Of a checkout: `spack repo create`, this file as packages/kestrix/package.py, `spack dev-build kestrix@0.57`.
    version("0.57")
    license("GPL-2.0-or-later")

    variant("tiff", default=True, description="TIFF micrographs")
    variant("compressed", default=True, description="gzip'd, bzip2'd and xz'd micrographs")
    variant("mpi", default=False, description="kestrix_mpi, for many processes")

    depends_on("cxx", type="build")
    depends_on("cmake@3.21:", type="build")
    depends_on("fftw precision=float +openmp")
    depends_on("libjpeg-turbo")
    depends_on("libpng")
    depends_on("nlohmann-json")
    depends_on("libtiff", when="+tiff")
    depends_on("zlib-api", when="+compressed")
    depends_on("bzip2", when="+compressed")
    depends_on("xz", when="+compressed")
    depends_on("mpi", when="+mpi")
    depends_on("cuda@11.8:", when="+cuda")

    def cmake_args(self):
        args = [
            self.define_from_variant("KESTRIX_CUDA", "cuda"),
            self.define("KESTRIX_TESTS", False),
            self.define("KESTRIX_BENCH", False),
            self.define("CMAKE_DISABLE_FIND_PACKAGE_TIFF", "~tiff" in self.spec),
            self.define("CMAKE_DISABLE_FIND_PACKAGE_MPI", "~mpi" in self.spec),
        ]
        for library in ("ZLIB", "BZip2", "LibLZMA"):
            args.append(self.define("CMAKE_DISABLE_FIND_PACKAGE_" + library, "~compressed" in self.spec))
        if "+cuda" in self.spec:
            args.append(self.define("CMAKE_CUDA_ARCHITECTURES", self.spec.variants["cuda_arch"].value))
        return args
