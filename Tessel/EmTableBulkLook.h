// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The bulk look-ups of an exact-match table, as templates. Internal to EmTable.
///
/// Nothing changes in the table meanwhile, so what leads to an element stays good, and the way to it is
/// kept in registers. But a result may be written where the key of a later pair lies: entryBulk() reads
/// each key again when its turn comes.

#include "Tessel/EmTableBulk.h"
#include "Tessel/EmTableWork.h"

namespace Tessel {

template<bool traced, class KeyClass>
class EmShadowTable::BulkLook : public EntryWork<traced, KeyClass, EmShadowTable const> {
   using Entries = EntryWork<traced, KeyClass, EmShadowTable const>;
   using Entries::keys;
   using Entries::table_;
   using typename Entries::Home;
   using Search = typename Entries::Keys::Search;

 public:
   using Entries::Entries;

   static U64 entryHas( EmShadowTable const& table, std::span<EmPair const> pairs, bool* answers ) {
      BulkLook const work( table );
      BulkAnswers noted( answers );
      if ( traced || work.keys().objects() != 0 ) {
         for ( std::size_t at = 0; at < pairs.size(); ++at ) {
            noted.note( at, Entries::entryHas( table, pairs[ at ].chipId, pairs[ at ].key ) );
         }
      } else if ( work.keys().bytes() <= cachedBytes ) {
         work.hasEach( pairs, noted );
      } else {
         work.hasEachFetching( pairs, noted );
      }
      return noted.count();
   }

   template<class Result>
   static U64
   entry( EmShadowTable const& table, std::span<EmPairAndBuffer const> pairs, bool* answers ) {
      BulkLook const work( table );
      BulkAnswers noted( answers );
      if ( traced ) {
         for ( std::size_t at = 0; at < pairs.size(); ++at ) {
            auto const& pair = pairs[ at ];
            noted.note( at, work.template get<Result>( pair.chipId, pair.key, pair.result ) );
         }
      } else if ( work.keys().bytes() <= cachedBesideImagesBytes ) {
         work.template getEach<Result>( pairs, noted );
      } else {
         work.template getEachFetching<Result>( pairs, noted );
      }
      return noted.count();
   }

 private:
   // ---- whether pairs are there, in a table without objects

   [[gnu::always_inline]] bool hasFurther( EmPair const& pair, U64 hash ) const {
      return Entries::hasFully( table_, pair.chipId, pair.key, hash );
   }

   void hasEach( std::span<EmPair const> pairs, BulkAnswers& answers ) const {
      Search const search = keys().search();
      auto const keysBySlot = keys().keysBySlot();
      BulkAnswers noted = answers; // in registers
      for ( std::size_t at = 0; at < pairs.size(); ++at ) {
         EmPair const& pair = pairs[ at ];
         U64 const hash = this->hashOf( pair.chipId, pair.key );
         auto const further = [ & ]() __attribute__( ( always_inline ) ) {
            return hasFurther( pair, hash );
         };
         noted.note(
            at,
            search.firstLook(
               hash,
               [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
                  return this->leadsTo( keysBySlot, lead, pair.chipId, pair.key ) || further();
               },
               []( Home /*home*/ ) { return false; },
               further ) );
      }
      answers = noted;
   }

   /// How many pairs make a block here, where less is fetched for each than where images are.
   static constexpr std::size_t hasStep = 32;

   /// In stages as inStages(), but a pair whose tags say that it is absent is answered there, and the
   /// others alone go on. Where most are absent, which is one line for each, the lines are asked for one by one
   /// between the answers: a whole block of them at once is more than the processor can wait for.
   void hasEachFetching( std::span<EmPair const> pairs, BulkAnswers& answers ) const {
      struct Candidate {
         SlotLead lead;
         U32 inBlock;
      };
      Search const search = keys().search();
      auto const keysBySlot = keys().keysBySlot();
      BulkAnswers noted = answers; // in registers
      std::array<U64, hasStep> hashes;
      std::array<Candidate, hasStep> candidates;
      std::size_t const blocks = ( pairs.size() + hasStep - 1 ) / hasStep;
      std::size_t count = 0;
      for ( std::size_t turn = 0; turn < blocks + 2; ++turn ) {
         for ( Candidate const& candidate : std::span( candidates ).first( count ) ) {
            std::size_t const number = ( turn - 2 ) * hasStep + candidate.inBlock;
            EmPair const& pair = pairs[ number ];
            noted.note( number,
                        this->leadsTo( keysBySlot, candidate.lead, pair.chipId, pair.key ) ||
                           hasFurther( pair, this->hashOf( pair.chipId, pair.key ) ) );
         }
         bool const mostWereAbsent = count < hasStep / 4;
         count = 0;
         auto const hash = [ & ]( std::size_t i ) __attribute__( ( always_inline ) ) {
            EmPair const& pair = pairs[ turn * hasStep + i ];
            hashes[ i ] = this->hashOf( pair.chipId, pair.key );
            search.fetchGroup( hashes[ i ] );
         };
         auto const look = [ & ]( std::size_t i, U64 hashOfPair )
            __attribute__( ( always_inline ) ) {
            std::size_t const number = ( turn - 1 ) * hasStep + i;
            search.firstLook(
               hashOfPair,
               [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
                  keysBySlot.fetch( lead.slot() );
                  candidates[ count ] = { .lead = lead, .inBlock = static_cast<U32>( i ) };
                  ++count;
               },
               [ & ]( Home /*home*/ )
                  __attribute__( ( always_inline ) ) { noted.note( number, false ); },
               [ & ]() __attribute__( ( always_inline ) ) {
                  noted.note( number, hasFurther( pairs[ number ], hashOfPair ) );
               } );
         };
         std::size_t const toHash = lengthOfBlock<hasStep>( turn, pairs.size() );
         std::size_t const toLook =
            turn == 0 ? 0 : lengthOfBlock<hasStep>( turn - 1, pairs.size() );
         std::size_t const together = mostWereAbsent ? std::min( toHash, toLook ) : 0;
         for ( std::size_t i = 0; i < together; ++i ) {
            U64 const hashBefore = hashes[ i ];
            hash( i );
            look( i, hashBefore );
         }
         for ( std::size_t i = together; i < toLook; ++i ) {
            look( i, hashes[ i ] );
         }
         for ( std::size_t i = together; i < toHash; ++i ) {
            hash( i );
         }
      }
      answers = noted;
   }

   // ---- results

   template<class Result>
   void getEach( std::span<EmPairAndBuffer const> pairs, BulkAnswers& answers ) const {
      Search const search = keys().search();
      BulkAnswers noted = answers; // in registers
      for ( std::size_t at = 0; at < pairs.size(); ++at ) {
         EmPairAndBuffer const& pair = pairs[ at ];
         U64 const hash = this->hashOf( pair.chipId, pair.key );
         auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
            return Entries::template getFully<Result>(
               table_, pair.chipId, pair.key, hash, pair.result );
         };
         noted.note( at,
                     search.firstLook(
                        hash,
                        [ & ]( SlotLead lead, U64 /*position*/ )
                           __attribute__( ( always_inline ) ) {
                              return this->template getAt<Result>(
                                 lead, pair.chipId, pair.key, pair.result, fully );
                           },
                        [ & ]( Home /*home*/ ) __attribute__( ( always_inline ) ) {
                           return fully(); // an object may hold the pair
                        },
                        fully ) );
      }
      answers = noted;
   }

   template<class Result>
   void getEachFetching( std::span<EmPairAndBuffer const> pairs, BulkAnswers& answers ) const {
      Search const search = keys().search();
      BulkAnswers noted = answers; // in registers
      inStages<SlotLead>(
         pairs.size(),
         [ & ]( std::size_t number ) __attribute__( ( always_inline ) ) {
            U64 const hash = this->hashOf( pairs[ number ].chipId, pairs[ number ].key );
            search.fetchGroup( hash );
            return hash;
         },
         [ & ]( U64 hash ) __attribute__( ( always_inline ) ) {
            return search.firstLook(
               hash,
               [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
                  this->fetchImage( lead.slot() );
                  return lead;
               },
               []( Home /*home*/ ) { return SlotLead(); },
               [] { return SlotLead(); } );
         },
         [ & ]( std::size_t number, SlotLead lead ) __attribute__( ( always_inline ) ) {
            auto const& pair = pairs[ number ];
            auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
               return Entries::template entry<Result>( table_, pair.chipId, pair.key, pair.result );
            };
            noted.note( number,
                        lead.saysAll() ? this->template getAt<Result>(
                                            lead, pair.chipId, pair.key, pair.result, anew )
                                       : anew() );
         } );
      answers = noted;
   }
};

} // namespace Tessel
