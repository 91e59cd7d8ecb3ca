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
   using Element = KeyElement<Entries::wordCount>;
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
      } else if ( work.isCached() ) {
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
      } else if ( work.isCached() ) {
         work.template getEach<Result>( pairs, noted );
      } else {
         work.template getEachFetching<Result>( pairs, noted );
      }
      return noted.count();
   }

 private:
   bool isCached() const { return keys().bytes() <= cachedBytes; }

   // ---- whether pairs are there, in a table without objects

   [[gnu::always_inline]] bool hasFurther( EmPair const& pair, U64 hash ) const {
      return Entries::hasFully( table_, pair.chipId, pair.key, hash );
   }

   void hasEach( std::span<EmPair const> pairs, BulkAnswers& answers ) const {
      Search const search = keys().search();
      BulkAnswers noted = answers; // in registers
      for ( std::size_t at = 0; at < pairs.size(); ++at ) {
         EmPair const& pair = pairs[ at ];
         U64 const hash = this->hashOf( pair.chipId, pair.key );
         noted.note(
            at,
            search.glance(
               hash,
               this->isPairOf( pair.chipId, pair.key ),
               []( auto const& /*found*/ ) { return true; },
               [] { return false; },
               [ & ]() __attribute__( ( always_inline ) ) { return hasFurther( pair, hash ); } ) );
      }
      answers = noted;
   }

   /// In stages as inStages(), but a pair whose tags say that it is absent is answered there, and the
   /// others alone go on.
   void hasEachFetching( std::span<EmPair const> pairs, BulkAnswers& answers ) const {
      struct Candidate {
         Element const* element;
         std::size_t number;
      };
      Search const search = keys().search();
      BulkAnswers noted = answers; // in registers
      std::array<U64, bulkStep> hashes;
      std::array<Candidate, bulkStep> candidates;
      std::size_t const blocks = ( pairs.size() + bulkStep - 1 ) / bulkStep;
      std::size_t count = 0;
      for ( std::size_t turn = 0; turn < blocks + 2; ++turn ) {
         for ( Candidate const& candidate : std::span( candidates ).first( count ) ) {
            EmPair const& pair = pairs[ candidate.number ];
            noted.note( candidate.number,
                        this->isPairOf( pair.chipId, pair.key )( *candidate.element ) ||
                           hasFurther( pair, this->hashOf( pair.chipId, pair.key ) ) );
         }
         count = 0;
         if ( turn >= 1 ) {
            forEachInBlock(
               turn - 1,
               pairs.size(),
               [ & ]( std::size_t number, std::size_t i ) __attribute__( ( always_inline ) ) {
                  search.fetchFirst(
                     hashes[ i ],
                     [ & ]( auto const& found ) __attribute__( ( always_inline ) ) {
                        candidates[ count ] = { .element = found.element, .number = number };
                        ++count;
                     },
                     [ & ]() __attribute__( ( always_inline ) ) { noted.note( number, false ); },
                     [ & ]() __attribute__( ( always_inline ) ) {
                        noted.note( number, hasFurther( pairs[ number ], hashes[ i ] ) );
                     } );
               } );
         }
         forEachInBlock(
            turn,
            pairs.size(),
            [ & ]( std::size_t number, std::size_t i ) __attribute__( ( always_inline ) ) {
               hashes[ i ] = this->hashOf( pairs[ number ].chipId, pairs[ number ].key );
               search.fetchTags( hashes[ i ] );
            } );
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
                     search.glance(
                        hash,
                        Entries::isOn( pair.chipId ),
                        [ & ]( auto const& found ) __attribute__( ( always_inline ) ) {
                           return this->template getAt<Result>(
                              *found.element, pair.chipId, pair.key, pair.result, fully );
                        },
                        fully, // an object may hold the pair
                        fully ) );
      }
      answers = noted;
   }

   template<class Result>
   void getEachFetching( std::span<EmPairAndBuffer const> pairs, BulkAnswers& answers ) const {
      using Lead = Element const*; // null where the first look does not lead to one
      Search const search = keys().search();
      BulkAnswers noted = answers; // in registers
      inStages<Lead>(
         pairs.size(),
         [ & ]( std::size_t number ) __attribute__( ( always_inline ) ) {
            U64 const hash = this->hashOf( pairs[ number ].chipId, pairs[ number ].key );
            search.fetchTags( hash );
            return hash;
         },
         [ & ]( U64 hash ) __attribute__( ( always_inline ) ) {
            return search.fetchFirst(
               hash,
               []( auto const& found ) { return Lead( found.element ); },
               [] { return Lead(); },
               [] { return Lead(); } );
         },
         [ & ]( Lead lead ) __attribute__( ( always_inline ) ) {
            if ( lead != nullptr && !lead->where().isObject() ) {
               this->fetchImage( lead->where().slot() );
            }
         },
         [ & ]( std::size_t number, Lead lead ) __attribute__( ( always_inline ) ) {
            noted.note( number, getForeseen<Result>( pairs[ number ], lead ) );
         } );
      answers = noted;
   }

   template<class Result>
   [[gnu::always_inline]] bool getForeseen( EmPairAndBuffer const& pair,
                                            Element const* lead ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entry<Result>( table_, pair.chipId, pair.key, pair.result );
      };
      if ( lead == nullptr || !lead->where().isOn( pair.chipId ) ) [[unlikely]] {
         return anew();
      }
      return this->template getAt<Result>( *lead, pair.chipId, pair.key, pair.result, anew );
   }
};

} // namespace Tessel
