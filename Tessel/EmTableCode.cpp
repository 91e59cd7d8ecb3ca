// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTableCode.h"

#include "Tessel/EmTableWork.h"

namespace Tessel {

/// The functions of EntryWork, for calls through a pointer.
struct EmShadowTable::CodeChoice {
   template<bool traced, class Keys, class Result>
   struct Functions {
      using Work = EntryWork<traced, Keys, EmShadowTable>;
      using Look = EntryWork<traced, Keys, EmShadowTable const>;

      static bool entryIs( EmShadowTable& table,
                           Brine::ChipId chipId,
                           Weft::CharPtrConst key,
                           Weft::CharPtrConst result ) {
         return Work( table ).template set<Result>( chipId, key, result );
      }
      static void entryDel( EmShadowTable& table, Brine::ChipId chipId, Weft::CharPtrConst key ) {
         Work( table ).del( chipId, key );
      }
      static bool
      entryHas( EmShadowTable const& table, Brine::ChipId chipId, Weft::CharPtrConst key ) {
         return Look( table ).has( chipId, key );
      }
      static bool entry( EmShadowTable const& table,
                         Brine::ChipId chipId,
                         Weft::CharPtrConst key,
                         Weft::CharPtr result ) {
         return Look( table ).template get<Result>( chipId, key, result );
      }
      static U64
      entryIsBulk( EmShadowTable& table, std::span<EmPairAndResult const> pairs, bool* answers ) {
         Work const work( table );
         return work.inBulk( pairs, answers, [ & ]( EmPairAndResult const& pair ) {
            return work.template set<Result>( pair.chipId, pair.key, pair.result );
         } );
      }
      static U64
      entryDelBulk( EmShadowTable& table, std::span<EmPair const> pairs, bool* answers ) {
         Work const work( table );
         return work.inBulk( pairs, answers, [ & ]( EmPair const& pair ) {
            return work.del( pair.chipId, pair.key );
         } );
      }
      static U64
      entryHasBulk( EmShadowTable const& table, std::span<EmPair const> pairs, bool* answers ) {
         Look const look( table );
         return look.inBulk( pairs, answers, [ & ]( EmPair const& pair ) {
            return look.has( pair.chipId, pair.key );
         } );
      }
      static U64 entryBulk( EmShadowTable const& table,
                            std::span<EmPairAndBuffer const> pairs,
                            bool* answers ) {
         Look const look( table );
         return look.inBulk( pairs, answers, [ & ]( EmPairAndBuffer const& pair ) {
            return look.template get<Result>( pair.chipId, pair.key, pair.result );
         } );
      }
      static EmTableEntry readFromVellumMemory( EmShadowTable const& table, EmTableIndex index ) {
         return Look( table ).template entryAt<Result>( index );
      }
      static void reconcile( EmShadowTable& table ) { Work( table ).reconcile(); }
      static void deleteAll( EmShadowTable& table, Brine::ChipId chipId ) {
         Work( table ).deleteAll( chipId );
      }
      static void clearTable( EmShadowTable& table ) { Work( table ).clear(); }
   };

   template<bool traced, class Keys, class Result>
   static Code const* code() {
      using F = Functions<traced, Keys, Result>;
      // What does not depend on the result is compiled once for all of them.
      using Any = Functions<traced, Keys, AnyResult>;
      static constexpr Code chosen{ .entryIs = F::entryIs,
                                    .entryDel = Any::entryDel,
                                    .entryHas = Any::entryHas,
                                    .entry = F::entry,
                                    .entryIsBulk = F::entryIsBulk,
                                    .entryDelBulk = Any::entryDelBulk,
                                    .entryHasBulk = Any::entryHasBulk,
                                    .entryBulk = F::entryBulk,
                                    .readFromVellumMemory = Any::readFromVellumMemory,
                                    .reconcile = Any::reconcile,
                                    .deleteAll = Any::deleteAll,
                                    .clearTable = Any::clearTable };
      return &chosen;
   }

   using Result8 = Vellum::detail::Reading<U64, 1>;
   using Result4 = Vellum::detail::Reading<U32, 1>;
   using Result2 = Vellum::detail::Reading<U16, 1>;
   using Result9To12 = Vellum::detail::Reading<U64, 2>;

   template<class Keys>
   static Code const* untraced( U32 resultLength ) {
      switch ( resultLength ) {
      case 2:
         return code<false, Keys, Result2>();
      case 4:
         return code<false, Keys, Result4>();
      case 8:
         return code<false, Keys, Result8>();
      default:
         return resultLength > 8 ? code<false, Keys, Result9To12>()
                                 : code<false, Keys, AnyResult>();
      }
   }

   /// For a key length that is worth code of its own, with the results that most tables have.
   template<class Keys>
   static Code const* untracedExact( U32 resultLength ) {
      return resultLength == 4   ? code<false, Keys, Result4>()
             : resultLength == 8 ? code<false, Keys, Result8>()
                                 : nullptr;
   }

   // MAC addresses, and addresses or their hashes in one and two words: a length that is known saves
   // the shifts, a tenth of a look-up.
   static Code const* untracedExact( U32 keyLength, U32 resultLength ) {
      switch ( keyLength ) {
      case 6:
         return untracedExact<KeyClass<1, 6>>( resultLength );
      case 8:
         return untracedExact<KeyClass<1, 8>>( resultLength );
      case 16:
         return untracedExact<KeyClass<2, 16>>( resultLength );
      default:
         return nullptr;
      }
   }
};

EmShadowTable::Code const* EmShadowTable::Code::untraced( U32 keyLength, U32 resultLength ) {
   if ( auto const* const exact = CodeChoice::untracedExact( keyLength, resultLength ) ) {
      return exact;
   }
   switch ( KeyToSlotMap::wordsFor( keyLength ) ) {
   case 1:
      return CodeChoice::untraced<KeyClass<1>>( resultLength );
   case 2:
      return CodeChoice::untraced<KeyClass<2>>( resultLength );
   default:
      return CodeChoice::untraced<KeyClass<3>>( resultLength );
   }
}

EmShadowTable::Code const* EmShadowTable::Code::traced( U32 keyLength ) {
   switch ( KeyToSlotMap::wordsFor( keyLength ) ) {
   case 1:
      return CodeChoice::code<true, KeyClass<1>, AnyResult>();
   case 2:
      return CodeChoice::code<true, KeyClass<2>, AnyResult>();
   default:
      return CodeChoice::code<true, KeyClass<3>, AnyResult>();
   }
}

} // namespace Tessel
