# For Homebrew. It has not been tried on macOS yet: what is known to work are the Debian packages and
# `cmake --install`. The address and the checksum are filled in for a release.
class Verdel < Formula
  desc "Deliver stems that sum to the mix"
  homepage "https://example.org/"
  url "https://example.org/verdel-0.1.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "GPL-3.0-or-later"

  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "pkgconf"
  depends_on "cairo"
  depends_on "fftw"
  depends_on "eigen" => :build
  depends_on "fmt"
  depends_on "icu4c"
  depends_on "libebur128"
  depends_on "libsndfile"
  depends_on "nettle"
  depends_on "nlohmann-json" => :build

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja",
           "-DVERDEL_BUILD_TESTS=OFF", "-DVERDEL_BUILD_BENCHMARKS=OFF",
           "-DICU_ROOT=#{Formula["icu4c"].opt_prefix}", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_equal "verdel #{version}\n", shell_output("#{bin}/verdel --version")
    # A mix that is not there: the engine says so and ends with status 1.
    output = shell_output("#{bin}/verdel-engine --mix none.wav --suggest-excerpt 10 2>&1", 1)
    assert_match "none.wav", output
  end
end
