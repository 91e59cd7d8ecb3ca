// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The bulk calls of an exact-match table, as templates. Internal to EmTable.
///
/// A large table is worked on in stages, each of which reads what the one before it has fetched: the
/// tags, then the element, then the image. What a stage saw is where the call looks first; it compares
/// there what the key is now, since a call before it may have written where the key lies, added the
/// pair, removed it, or let the map grow. Where it does not find the pair it does what a single call
/// does.

#include "Tessel/EmTableWork.h"

namespace Tessel {

template<bool traced, class KeyClass, class Table>
class EmShadowTable::BulkWork : public EntryWork<traced, KeyClass, Table> {
   using Entries = EntryWork<traced, KeyClass, Table>;
   using Entries::keys;
   using Entries::table_;

 public:
   using Entries::Entries;

   template<class Result>
   static U64 entryIs( Table& table, std::span<EmPairAndResult const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<true>(
         pairs,
         answers,
         [ & ]( EmPairAndResult const& pair ) __attribute__( ( always_inline ) ) {
            return work.template set<Result>( pair.chipId, pair.key, pair.result );
         },
         [ & ]( EmPairAndResult const& pair, U64 position ) __attribute__( ( always_inline ) ) {
            return work.template setForeseen<Result>( pair, position );
         } );
   }
   template<class Result>
   static U64 entryDel( Table& table, std::span<EmPair const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<true>(
         pairs,
         answers,
         [ & ]( EmPair const& pair ) __attribute__( ( always_inline ) ) {
            return work.template del<Result>( pair.chipId, pair.key );
         },
         [ & ]( EmPair const& pair, U64 position ) __attribute__( ( always_inline ) ) {
            return work.template delForeseen<Result>( pair, position );
         } );
   }
   static U64 entryHas( Table& table, std::span<EmPair const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<false>(
         pairs,
         answers,
         [ & ]( EmPair const& pair )
            __attribute__( ( always_inline ) ) { return work.has( pair.chipId, pair.key ); },
         [ & ]( EmPair const& pair, U64 position )
            __attribute__( ( always_inline ) ) { return work.hasForeseen( pair, position ); } );
   }
   template<class Result>
   static U64 entry( Table& table, std::span<EmPairAndBuffer const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<true>(
         pairs,
         answers,
         [ & ]( EmPairAndBuffer const& pair ) __attribute__( ( always_inline ) ) {
            return work.template get<Result>( pair.chipId, pair.key, pair.result );
         },
         [ & ]( EmPairAndBuffer const& pair, U64 position ) __attribute__( ( always_inline ) ) {
            return work.template getForeseen<Result>( pair, position );
         } );
   }

 private:
   // ---- one entry, of which fetchElement() or fetchElementOrPlace() gave the position some calls ago

   template<class Result>
   [[gnu::always_inline]] bool setForeseen( EmPairAndResult const& pair, U64 position ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryIs<Result>( table_, pair.chipId, pair.key, pair.result );
      };
      return keys().glanceAt(
         position,
         this->isPairOf( pair.chipId, pair.key ),
         [ & ]( EmTableIndex slot, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
            return this->template setAt<Result>( slot, pair.chipId, pair.key, pair.result, anew );
         },
         anew );
   }

   template<class Result>
   [[gnu::always_inline]] bool delForeseen( EmPair const& pair, U64 position ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryDel<Result>( table_, pair.chipId, pair.key );
      };
      return keys().glanceAt(
         position,
         this->isPairOf( pair.chipId, pair.key ),
         [ & ]( EmTableIndex slot, U64 at ) __attribute__( ( always_inline ) ) {
            return this->template delOwned<Result>( slot, at, pair.chipId, anew );
         },
         anew );
   }

   [[gnu::always_inline]] bool hasForeseen( EmPair const& pair, U64 position ) const {
      // Nothing but answers has been written since, and no key lies there.
      if ( position == Entries::Keys::nowhere && keys().objects() == 0 ) {
         return false;
      }
      return keys().glanceAt(
         position,
         this->isPairOf( pair.chipId, pair.key ),
         []( EmTableIndex, U64 ) { return true; },
         [ & ]() __attribute__( ( always_inline ) ) {
            return Entries::entryHas( table_, pair.chipId, pair.key );
         } );
   }

   template<class Result>
   [[gnu::always_inline]] bool getForeseen( EmPairAndBuffer const& pair, U64 position ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entry<Result>( table_, pair.chipId, pair.key, pair.result );
      };
      return keys().glanceAt(
         position,
         Entries::isOn( pair.chipId ),
         [ & ]( EmTableIndex slot, U64 at ) __attribute__( ( always_inline ) ) {
            return this->template getAt<Result>(
               slot, at, pair.chipId, pair.key, pair.result, anew );
         },
         anew );
   }

   // ---- many

   /// Answers each pair, in order, and counts the true answers: `directly( pair )` in a small table,
   /// `foreseen( pair, position )` in a large one, where what it will read is fetched ahead, images
   /// among it where `readsImages`.
   template<bool readsImages, class Asked, class Directly, class Foreseen>
   [[gnu::always_inline]] U64 inBulk( std::span<Asked const> pairs,
                                      bool* answers,
                                      Directly const& directly,
                                      Foreseen const& foreseen ) const {
      U64 count = 0;
      auto const note = [ & ]( std::size_t at, bool answer ) __attribute__( ( always_inline ) ) {
         count += answer ? 1 : 0;
         if ( answers != nullptr ) {
            answers[ at ] = answer;
         }
      };
      for ( std::size_t begin = 0; begin < pairs.size(); begin += bulkRun ) {
         auto const run = pairs.subspan( begin, std::min( bulkRun, pairs.size() - begin ) );
         if ( !traced && keys().bytes() > cachedBytes ) { // to which it may have grown on the way
            fetchingAhead<readsImages>(
               run, [ & ]( std::size_t at, U64 position ) __attribute__( ( always_inline ) ) {
                  note( begin + at, foreseen( run[ at ], position ) );
               } );
         } else {
            for ( std::size_t at = 0; at < run.size(); ++at ) {
               note( begin + at, directly( run[ at ] ) );
            }
         }
      }
      return count;
   }

   /// Calls `perform( number, position )` for each pair, in order.
   template<bool readsImages, class Asked, class Perform>
   [[gnu::always_inline]] void fetchingAhead( std::span<Asked const> pairs,
                                              Perform const& perform ) const {
      constexpr std::size_t stages = readsImages ? 3 : 2;
      // Of pair n at n modulo the size: its hash after the first stage, its position after the second.
      std::array<U64, std::bit_ceil( stages * bulkStep )> leads;
      auto const leadOf = [ & ]( std::size_t at ) __attribute__( ( always_inline ) )->U64& {
         return leads[ at % leads.size() ];
      };
      // Works on the pairs that are in this stage at this turn.
      auto const inStage = [ & ]( std::size_t turn, std::size_t stage, auto const& work )
         __attribute__( ( always_inline ) ) {
         std::size_t const begin = ( turn - stage ) * bulkStep;
         std::size_t const end = turn < stage ? 0 : std::min( begin + bulkStep, pairs.size() );
         for ( std::size_t at = begin; at < end; ++at ) {
            work( at );
         }
      };
      std::size_t const turns = ( pairs.size() + bulkStep - 1 ) / bulkStep + stages;
      for ( std::size_t turn = 0; turn < turns; ++turn ) {
         inStage(
            turn, stages, [ & ]( std::size_t at ) __attribute__( ( always_inline ) ) {
               perform( at, leadOf( at ) );
            } );
         if constexpr ( readsImages ) {
            inStage(
               turn, 2, [ & ]( std::size_t at ) __attribute__( ( always_inline ) ) {
                  fetchImageAt( leadOf( at ) );
               } );
         }
         inStage(
            turn, 1, [ & ]( std::size_t at ) __attribute__( ( always_inline ) ) {
               leadOf( at ) = fetchElement<Asked>( leadOf( at ) );
            } );
         inStage(
            turn, 0, [ & ]( std::size_t at ) __attribute__( ( always_inline ) ) {
               leadOf( at ) = this->hashOf( pairs[ at ].chipId, pairs[ at ].key );
               keys().fetchTags( leadOf( at ) );
            } );
      }
   }

   template<class Asked>
   [[gnu::always_inline]] U64 fetchElement( U64 hash ) const {
      if constexpr ( std::is_same_v<Asked, EmPairAndResult> ) {
         return keys().fetchElementOrPlace( hash );
      } else {
         return keys().fetchElement( hash );
      }
   }

   [[gnu::always_inline]] void fetchImageAt( U64 position ) const {
      if ( !keys().holds( position ) ) {
         return;
      }
      if ( SlotOrObject const where = keys().whereOf( position ); !where.isObject() ) {
         this->fetchImage( where.slot() );
      }
   }
};

} // namespace Tessel
