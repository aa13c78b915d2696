"""An outside project finds the library in an install and in the build tree, builds and runs; pkg-config too."""
import os
import shlex
import subprocess
import sys
import tempfile

build, source = sys.argv[1:]


def run(*command, **options):
    print("+", *command, flush=True)
    return subprocess.run(command, check=True, **options)


with tempfile.TemporaryDirectory(prefix="nuvika-consumer-") as folder:
    prefix = os.path.join(folder, "installed")
    run("cmake", "--install", build, "--prefix", prefix, stdout=subprocess.DEVNULL)
    for name, where in (("install", prefix), ("build tree", build)):
        out = os.path.join(folder, name.replace(" ", "-"))
        run("cmake", "-S", source, "-B", out, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={where}", f"-DKepNuvikaUtil_DIR={where}"
            if where == build else "-DUNUSED=1", stdout=subprocess.DEVNULL)
        run("cmake", "--build", out, stdout=subprocess.DEVNULL)
        run(os.path.join(out, "consumer"))
    libraries = [f for f in os.listdir(prefix + "/lib") if f.startswith("x86") or f == "pkgconfig"]
    libdir = prefix + "/lib" if "pkgconfig" in libraries else os.path.join(prefix, "lib", libraries[0])
    environment = dict(os.environ, PKG_CONFIG_PATH=libdir + "/pkgconfig", LD_LIBRARY_PATH=libdir)
    flags = run("pkg-config", "--cflags", "--libs", "KepNuvikaUtil", env=environment, capture_output=True, text=True).stdout
    binary = os.path.join(folder, "by-pkg-config")
    run("c++", "-std=c++17", "-fPIC", source + "/main.cpp", "-o", binary, *shlex.split(flags))
    run(binary, env=environment)
    tool = os.path.join(prefix, "bin", "nuvika")
    run(tool, "--help", stdout=subprocess.DEVNULL)
    soname = subprocess.run(["readelf", "-d", os.path.join(libdir, "libKepNuvikaUtil.so")], capture_output=True, text=True).stdout
    assert "libKepNuvikaUtil.so.0]" in soname, "a versioned SONAME"
