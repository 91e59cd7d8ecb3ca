// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The bulk calls that change an exact-match table, as templates. Internal to EmTable.
///
/// What a stage saw (Tessel/EmTableBulk.h) is where the call looks first; it compares there what the key is
/// now, since a call before it may have written where the key lies, added the pair, removed it, or let the
/// map grow. Where it does not find the pair it does what a single call does.

#include "Tessel/EmTableBulk.h"
#include "Tessel/EmTableWork.h"

namespace Tessel {

template<bool traced, class KeyClass>
class EmShadowTable::BulkWork : public EntryWork<traced, KeyClass, EmShadowTable> {
   using Entries = EntryWork<traced, KeyClass, EmShadowTable>;
   using Entries::keys;
   using Entries::table_;

 public:
   using Entries::Entries;

   template<class Result>
   static U64
   entryIs( EmShadowTable& table, std::span<EmPairAndResult const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<SlotLead>(
         pairs,
         answers,
         [ & ]( EmPairAndResult const& pair ) __attribute__( ( always_inline ) ) {
            return work.template set<Result, Entries::Adding::here>(
               pair.chipId, pair.key, pair.result );
         },
         []( SlotLead lead, U64 /*position*/ ) { return lead; },
         [ & ]( EmPairAndResult const& pair, SlotLead lead ) __attribute__( ( always_inline ) ) {
            return work.template setForeseen<Result>( pair, lead );
         } );
   }
   template<class Result>
   static U64 entryDel( EmShadowTable& table, std::span<EmPair const> pairs, bool* answers ) {
      BulkWork const work( table );
      return work.template inBulk<Sighting>(
         pairs,
         answers,
         [ & ]( EmPair const& pair ) __attribute__( ( always_inline ) ) {
            return work.template del<Result>( pair.chipId, pair.key );
         },
         []( SlotLead lead, U64 position ) {
            return Sighting{ .lead = lead, .position = position };
         },
         [ & ]( EmPair const& pair, Sighting const& seen ) __attribute__( ( always_inline ) ) {
            return work.template delForeseen<Result>( pair, seen );
         } );
   }

 private:
   /// A lead, and where it is in a map that does not grow meanwhile.
   struct Sighting {
      SlotLead lead;
      U64 position = Entries::Keys::nowhere;
   };

   // ---- one entry, of which firstLook() gave the lead some calls ago, or none. The slot is still that of the
   // pair that had it then, unless that has been deleted, with its image.

   template<class Result>
   [[gnu::always_inline]] bool setForeseen( EmPairAndResult const& pair, SlotLead lead ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryIs<Result>( table_, pair.chipId, pair.key, pair.result );
      };
      if ( !lead.saysAll() ) [[unlikely]] {
         return anew();
      }
      return this->template setAt<Result>( lead, pair.chipId, pair.key, pair.result, anew );
   }

   template<class Result>
   [[gnu::always_inline]] bool delForeseen( EmPair const& pair, Sighting const& seen ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryDel<Result>( table_, pair.chipId, pair.key );
      };
      if ( !seen.lead.saysAll() ) [[unlikely]] {
         return anew();
      }
      return this->template delAt<Result>( seen.lead, seen.position, pair.chipId, pair.key, anew );
   }

   // ---- many

   /// Takes back what has been announced, also when memory has run out.
   class Announcement {
    public:
      explicit Announcement( typename Entries::Keys& keys ) : keys_( keys ) {}
      Announcement( Announcement const& ) = delete;
      Announcement& operator=( Announcement const& ) = delete;
      ~Announcement() { keys_.announce( 0 ); }

    private:
      typename Entries::Keys& keys_;
   };

   /// Answers each pair, in order: `directly( pair )` in a small table, `foreseen( pair, sight )` in a large
   /// one, where what it will read is fetched ahead; a sight is what `see( lead, position )` made of it some
   /// calls ago, or Sight() where there was nothing to see. Counts the true answers.
   template<class Sight, class Asked, class Directly, class See, class Foreseen>
   [[gnu::always_inline]] U64 inBulk( std::span<Asked const> pairs,
                                      bool* answers,
                                      Directly const& directly,
                                      See const& see,
                                      Foreseen const& foreseen ) const {
      Announcement const announced( keys() );
      BulkAnswers noted( answers );
      U64 before = keys().size();
      for ( std::size_t begin = 0; begin < pairs.size(); begin += bulkRun ) {
         auto const run = pairs.subspan( begin, std::min( bulkRun, pairs.size() - begin ) );
         if constexpr ( std::is_same_v<Asked, EmPairAndResult> ) {
            U32 const free = table_.isFull() ? 0 : table_.numEntries_ - table_.numUsedEntries_;
            keys().announce( std::min<U64>( pairs.size() - begin, free ) );
         }
         // New pairs wait for little: they take one slot after the other.
         bool const mostAreNew = keys().size() > before + bulkRun / 2;
         before = keys().size();
         if ( !traced && keys().bytes() > ( mostAreNew ? uncachedBytes : cachedBytes ) ) {
            fetchingAhead<Sight>(
               run,
               see,
               [ & ]( std::size_t at, Sight const& sight ) __attribute__( ( always_inline ) ) {
                  noted.note( begin + at, foreseen( run[ at ], sight ) );
               } );
         } else {
            for ( std::size_t at = 0; at < run.size(); ++at ) {
               noted.note( begin + at, directly( run[ at ] ) );
            }
         }
      }
      return noted.count();
   }

   template<class Sight, class Asked, class See, class Perform>
   [[gnu::always_inline]] void
   fetchingAhead( std::span<Asked const> pairs, See const& see, Perform const& perform ) const {
      inStages<Sight>(
         pairs.size(),
         [ & ]( std::size_t number ) __attribute__( ( always_inline ) ) {
            U64 const hash = this->hashOf( pairs[ number ].chipId, pairs[ number ].key );
            keys().fetchGroup( hash );
            return hash;
         },
         [ & ]( U64 hash ) __attribute__( ( always_inline ) ) {
            return keys().firstLook(
               hash,
               [ & ]( SlotLead lead, U64 position ) __attribute__( ( always_inline ) ) {
                  this->fetchImage( lead.slot() );
                  return see( lead, position );
               },
               []( typename Entries::Home /*home*/ ) { return Sight(); },
               [] { return Sight(); } );
         },
         perform );
   }
};

} // namespace Tessel
