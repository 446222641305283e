#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace verdel::internal {

/// Overlapping frequency masks over the bins of one real transform: band centres in geometric
/// progression from 40 Hz to the Nyquist frequency, raised-cosine crossovers between neighbours,
/// and at every bin all masks together are 1.
///
/// A whole song's transform has millions of bins, so no mask is kept: each is computed anew,
/// [bins], whenever it is asked for. Read-only once built; any number of threads may ask.
///
/// The report reads edges, weights and the denominator. Whole masks are the bank as it is defined:
/// the plain form of the report, which the tests hold it against, walks over them.
class StreamedBandMasks {
 public:
  /// nfft: transform length, at least 2; sr: Hz; bands: at least 2. Centres above the Nyquist
  /// frequency, which rates below 80 Hz have, count as that frequency.
  StreamedBandMasks(std::size_t nfft, double sr, std::size_t bands);

  std::size_t nfft() const { return nfft_; }
  double sr() const { return sr_; }
  std::span<const double> centers() const { return centers_; }          ///< Hz, rising, [bands]
  std::span<const double> frequencies() const { return frequencies_; }  ///< Hz, [nfft / 2 + 1]
  /// The sum of all raw masks at every bin.
  std::span<const double> denominator() const { return denominator_; }

  std::size_t size() const { return centers_.size(); }

  /// Where a band lies. It rises over bins first .. crest - 1, from the centre of the band below
  /// it, and falls over bins crest .. stop - 1, to the centre of the band above. The lowest band is
  /// 1 where it would rise, the highest where it would fall.
  struct Edges {
    std::size_t first = 0, crest = 0, stop = 0;
  };
  Edges edges(std::size_t band) const;

  /// 1 at the band's centre, falling to 0 at the centre below and to almost 0 at the one above.
  std::vector<double> raw_mask(std::size_t band) const;
  double raw_weight(std::size_t band, std::size_t bin) const;
  /// The raw mask over the denominator.
  std::vector<double> operator[](std::size_t band) const;

  /// Walks over the normalised masks in the order of the bands.
  class Iterator {
   public:
    Iterator(const StreamedBandMasks& bank, std::size_t band) : bank_(&bank), band_(band) {}
    std::vector<double> operator*() const { return (*bank_)[band_]; }
    Iterator& operator++() {
      ++band_;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return band_ != other.band_; }

   private:
    const StreamedBandMasks* bank_;
    std::size_t band_;
  };
  Iterator begin() const { return {*this, 0}; }
  Iterator end() const { return {*this, size()}; }

 private:
  std::size_t nfft_;
  double sr_;
  std::vector<double> centers_, frequencies_, denominator_;
  std::vector<std::size_t> centre_bins_;  // the first bin at each centre or above it
};

}  // namespace verdel::internal
